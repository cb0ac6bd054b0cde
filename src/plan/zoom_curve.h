#pragma once
// The zoom at every instant of a plim: eases into each zoom block, holds it, and eases back
// out, in the block's own style or the curve's. Blocks that nearly touch hand over directly
// instead of returning to the full picture in between.

#include "plan/zoom_block.h"
#include "plan/zoom_state.h"

#include <vector>

namespace plim {

class ZoomCurve {
public:
    // Lengths of a style's moves, in source seconds. Both fit inside the block: a block
    // shorter than leadIn + leadOut gets both shortened in proportion.
    struct Timing {
        double leadIn = 0;  // from the block's start until it is fully in
        double leadOut = 0; // until the block's end, back to the full picture
        bool operator==(const Timing&) const = default;
    };

    // Blocks that start less than this after the previous one ends take over from it
    // without going back to the full picture.
    static constexpr double handoverGap = 1.0;

    ZoomCurve() = default;
    // Blocks with a non-finite or empty span, or a scale that is not a positive finite
    // number, are left out; a non-finite centre reads as the middle of the picture and
    // centres are clamped into it. A block that starts inside an earlier one ends that one.
    explicit ZoomCurve(std::vector<ZoomBlock> blocks, ZoomStyle style = ZoomStyle::smooth);

    static Timing timing(ZoomStyle style);
    // Progress (0 at u = 0, 1 at u = 1, possibly beyond 1 in between) of a move toward a
    // block (entering) or back to the full picture, at fraction u of the move.
    static double ease(ZoomStyle style, bool entering, double u);

    // The zoom at source time `at`; the full picture outside every block and for a
    // non-finite time. Costs one binary search.
    ZoomState state(double at) const;

    const std::vector<ZoomBlock>& blocks() const { return m_blocks; }
    ZoomStyle style() const { return m_style; }

private:
    struct Move {
        double t0 = 0;
        double t1 = 0;
        ZoomState from;
        ZoomState to;
        ZoomStyle style = ZoomStyle::smooth;
        bool entering = true;
    };

    std::vector<ZoomBlock> m_blocks; // as given
    ZoomStyle m_style = ZoomStyle::smooth;
    std::vector<Move> m_moves; // in time order, not overlapping; between moves the last `to` holds
};

} // namespace plim
