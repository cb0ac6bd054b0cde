#pragma once
// The rules every render shares (staged movie, reframed movie, exported movie, GIF):
// which source frames become output frames, how many output frames there will be and how
// large the canvas is (media/movie_writer.h has the bit rate). Pure functions of their
// arguments.

#include "base/geometry.h"
#include "plan/plim_clip.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace plim {

struct EditPlan;

namespace RenderRules {

inline constexpr double videoFPS = 60;
inline constexpr double gifFPS = 12;
// The source rate assumed when the frame count is predicted before the movie is read.
inline constexpr double assumedSourceFPS = 60;

// One pacing decision: whether the frame whose output time was asked about is drawn,
// and the first slot still open afterwards.
struct Pace {
    bool take = false;
    int64_t nextSlot = 0;
    bool operator==(const Pace&) const = default;
};

// The output slot of a frame is floor(fps × outT + 1e-6); it is taken when that slot is
// at or after `nextSlot`, so at most one frame is drawn per slot.
Pace pace(double outT, int64_t nextSlot, double fps);
int64_t slotOf(double outT, double fps);

// A source frame the pacing rule takes: which piece it plays in, its index and raw time
// in the recording, its output time and slot.
struct PacedFrame {
    std::size_t piece = 0;
    int64_t sourceIndex = 0;
    double rawTime = 0;
    double outTime = 0;
    int64_t slot = 0;
    bool operator==(const PacedFrame&) const = default;
};

// Walks the timeline's pieces over a recording read at `sourceFPS` (frame i at i /
// sourceFPS): the frames from ceil(sourceFPS × raw start) to ceil(sourceFPS × raw end) − 1,
// limited to the recording, whose raw time lies in the piece; each at output start plus
// the output seconds played since the piece's start, never past its end.
std::vector<PacedFrame> pacedFrames(const ClipTimeline& timeline, double sourceFPS, double fps);

// Output time of a raw time inside one piece, as the pacing rule computes it.
double pacedOutputTime(const ClipTimeline& timeline, std::size_t piece, double raw);

// The number of output frames: 0 when the duration or source rate is not finite, the
// output rate not positive, or no frame is taken; otherwise the larger of the final
// next slot and round(fps × the last piece's output end).
int64_t expectedFrames(const ClipTimeline& timeline, double sourceFPS, double fps);
int64_t expectedFrames(const EditPlan& plan, double rawDuration, double sourceFPS, double fps);

// Raw seconds the passes read.
double readTotal(const std::vector<ClipTimeline::Pass>& passes);

// Output quality by the canvas's short side.
enum class Quality { p720 = 720, p1080 = 1080, p2160 = 2160 };
std::optional<Quality> qualityFromShortSide(int shortSide);

// The canvas for a recording of `recorded` pixels (unknown when a side is below 2): the
// quality's short side (× 0.6 for a GIF) along the recording's shorter side, its aspect
// kept, each side rounded down to an even number of at least 2; 16:9 when the size is
// unknown.
struct PixelSize {
    int width = 0;
    int height = 0;
    bool operator==(const PixelSize&) const = default;
};
PixelSize canvasSize(Quality quality, bool gif, std::optional<Size> recorded);

} // namespace RenderRules

} // namespace plim
