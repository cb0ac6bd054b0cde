#include "plan/zoom_curve.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

using namespace plim;

namespace {

ZoomBlock block(double start, double end, double scale, double x, double y, std::optional<std::string> style = {})
{
    return ZoomBlock{"5A0F4C1E-2B7D-4E83-9C61-0D2E3F4A5B6C", start, end, x, y, scale, ZoomBlock::Origin::mark(), style};
}

double distance(const ZoomState& a, const ZoomState& b)
{
    return std::max({std::abs(a.scale - b.scale), std::abs(a.centerX - b.centerX), std::abs(a.centerY - b.centerY)});
}

// The curve walked in tiny steps: the largest change between neighbours and the scale's range.
struct Walk {
    double largestStep = 0, lowest = INFINITY, highest = 0, lowestX = 1;
};
Walk walk(const ZoomCurve& curve, double from, double to, double dt = 1e-4)
{
    Walk w;
    ZoomState previous = curve.state(from);
    for (double t = from; t <= to; t += dt) {
        ZoomState now = curve.state(t);
        w = {std::max(w.largestStep, distance(previous, now)), std::min(w.lowest, now.scale),
            std::max(w.highest, now.scale), std::min(w.lowestX, now.centerX)};
        previous = now;
    }
    return w;
}

// The largest change across each instant, approached from both sides.
double gapAcross(const ZoomCurve& curve, std::initializer_list<double> instants)
{
    double worst = 0;
    for (double t : instants)
        worst = std::max(worst, distance(curve.state(t - 1e-9), curve.state(t + 1e-9)));
    return worst;
}

} // namespace

TEST(ZoomCurve, EveryStyleMovesWithoutJumpsAndHandsOverBetweenNearBlocks)
{
    for (ZoomStyle style : allZoomStyles) {
        SCOPED_TRACE(zoomStyleText(style));
        // Sampled every 0.1 ms the curve moves at most a few hundredths: no step, also across
        // the ends of each move and a block too short for its moves.
        ZoomCurve apart({block(1, 4, 2.4, 0.1, 0.9), block(7, 7.3, 1.8, 0.8, 0.2)}, style);
        EXPECT_LT(walk(apart, 0, 9).largestStep, 0.03);
        for (double t : {0.0, 1.0, 4.0, 5.5, 7.3, std::nan("")})
            EXPECT_LT(distance(apart.state(t), ZoomState::identity()), 1e-12) << t;
        EXPECT_EQ(apart.state(2.5), (ZoomState{2.4, 0.1, 0.9}));
        ZoomCurve::Timing timing = ZoomCurve::timing(style);
        EXPECT_LT(gapAcross(apart, {1.0, 1.0 + timing.leadIn, 4.0 - timing.leadOut, 4.0, 7.0, 7.15, 7.3}), 1e-5);
        // Blocks 0.4 s apart: the first is held through the gap and the second reached, never
        // dipping toward the full picture (overshooting styles may swing a little past 1.8).
        ZoomCurve near({block(1, 4, 2.0, 0.2, 0.2), block(4.4, 8, 1.8, 0.7, 0.6)}, style);
        Walk handover = walk(near, 3.0, 5.5);
        EXPECT_LT(handover.largestStep, 0.03);
        EXPECT_LT(gapAcross(near, {4.0, 4.2, 4.4}), 1e-5);
        bool overshoots = style == ZoomStyle::bouncy || style == ZoomStyle::spring;
        EXPECT_GT(handover.lowest, overshoots ? 1.7 : 1.8 - 1e-9);
        EXPECT_NEAR(near.state(4.2).scale, 2.0, 1e-12);
        EXPECT_NEAR(near.state(6).centerX, 0.7, 1e-12);
    }
    // A block shorter than its moves still reaches its zoom.
    ZoomCurve glide({block(2, 2.3, 2.4, 0.3, 0.3)}, ZoomStyle::glide);
    EXPECT_NEAR(glide.state(2.15).scale, 2.4, 1e-9);
    EXPECT_EQ(glide.state(2.3), ZoomState::identity());
}

TEST(ZoomCurve, EasesRunFromZeroToOneInTheirOwnShape)
{
    // Past halfway at the middle of the move: the styles that ease out (and the overshooting
    // ones on the way in); the rest are symmetric.
    auto fast = [](ZoomStyle style, bool entering) {
        return style == ZoomStyle::snappy || style == ZoomStyle::glide || style == ZoomStyle::instant
            || (entering && (style == ZoomStyle::bouncy || style == ZoomStyle::spring));
    };
    for (ZoomStyle style : allZoomStyles) {
        for (bool entering : {true, false}) {
            SCOPED_TRACE(std::string(zoomStyleText(style)) + (entering ? " in" : " out"));
            EXPECT_NEAR(ZoomCurve::ease(style, entering, 0), 0, 1e-12);
            EXPECT_NEAR(ZoomCurve::ease(style, entering, 1), 1, 1e-12);
            double middle = ZoomCurve::ease(style, entering, 0.5);
            EXPECT_TRUE(fast(style, entering) ? middle > 0.7 : std::abs(middle - 0.5) < 1e-12) << middle;
        }
    }
}

TEST(ZoomCurve, StylesCanBeToldApartAndBlocksOverrideTheCurveStyle)
{
    // Each pair of styles differs visibly somewhere in the first second of a zoom.
    auto sample = [](ZoomStyle style) {
        ZoomCurve curve({block(1, 5, 2.0, 0.5, 0.5)}, style);
        std::vector<double> scales;
        for (double t = 1.0; t <= 2.0; t += 0.01)
            scales.push_back(curve.state(t).scale);
        return scales;
    };
    for (ZoomStyle a : allZoomStyles) {
        for (ZoomStyle b : allZoomStyles) {
            if (a >= b) continue;
            std::vector<double> sa = sample(a), sb = sample(b);
            double most = 0;
            for (size_t i = 0; i < sa.size(); ++i)
                most = std::max(most, std::abs(sa[i] - sb[i]));
            EXPECT_GT(most, 0.05) << zoomStyleText(a) << " and " << zoomStyleText(b);
        }
    }
    // Overshooting styles pass their target scale on the way in, the calm ones never do, and
    // no centre swings past its target.
    for (ZoomStyle style : allZoomStyles) {
        Walk w = walk(ZoomCurve({block(1, 5, 2.0, 0.2, 0.5)}, style), 1, 5);
        bool overshoots = style == ZoomStyle::bouncy || style == ZoomStyle::spring;
        EXPECT_TRUE(overshoots ? w.highest > 2.05 : w.highest < 2.0 + 1e-9) << zoomStyleText(style) << " " << w.highest;
        EXPECT_GE(w.lowestX, 0.2 - 1e-12) << zoomStyleText(style);
    }

    // A block's own style rules; one this version does not know reads as the curve's.
    ZoomCurve cut({block(1, 5, 2.0, 0.5, 0.5)}, ZoomStyle::cut), drift({block(1, 5, 2.0, 0.5, 0.5)}, ZoomStyle::drift);
    ZoomCurve overridden({block(1, 5, 2.0, 0.5, 0.5, "cut")}, ZoomStyle::drift);
    ZoomCurve unknown({block(1, 5, 2.0, 0.5, 0.5, "wobbly")}, ZoomStyle::drift);
    for (double t = 0.9; t < 5.2; t += 0.013) {
        EXPECT_EQ(overridden.state(t), cut.state(t)) << t;
        EXPECT_EQ(unknown.state(t), drift.state(t)) << t;
    }
}

TEST(ZoomCurve, UnusableBlocksAreIgnoredAndOverlapsHandOverInTimeOrder)
{
    double nan = std::nan("");
    // Given out of order: the later block still takes over from the earlier one.
    ZoomCurve curve({block(12, 16, 1.5, 0.1, 0.1), block(nan, 3, 2, 0.5, 0.5), block(5, 4, 2, 0.5, 0.5),
                        block(1, 2, 0, 0.5, 0.5), block(1, 2, nan, 0.5, 0.5), block(10, 14, 2.0, nan, 7.0)},
        ZoomStyle::smooth);
    EXPECT_EQ(curve.blocks().size(), 6u);
    EXPECT_EQ(curve.state(1.5), ZoomState::identity());
    EXPECT_EQ(curve.state(4.5), ZoomState::identity());
    EXPECT_EQ(curve.state(11), (ZoomState{2.0, 0.5, 1.0}));
    // The later block takes over where it starts, without a jump.
    EXPECT_NEAR(curve.state(13).scale, 1.5, 1e-9);
    EXPECT_LT(walk(curve, 9, 17).largestStep, 0.03);
}
