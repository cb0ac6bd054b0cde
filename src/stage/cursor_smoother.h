#pragma once
// The recorded pointer as it is drawn: the cursor track's samples, held between stamps and
// chased by the pointer spring in ticks of 1/120 s, stored one position per tick so that
// any instant is read in constant time.

#include "stage/cursor_spring.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace plim {

struct CursorTrack;

struct CursorSmoother {
    using Point = CursorSpring::Point;

    // A recorded position in source seconds and fractions of the recorded picture.
    struct Sample {
        double t = 0;
        double x = 0.5;
        double y = 0.5;
        bool operator==(const Sample&) const = default;
    };

    // Most source time one smoother covers; later instants read its last position.
    static constexpr double longestSpan = 12 * 3600;

    double step = CursorSpring::step;
    std::vector<double> xs; // smoothed positions, one per step
    std::vector<double> ys;
    double start = 0; // source time of the first entry
    bool operator==(const CursorSmoother&) const = default;

    CursorSmoother() = default;
    // Smooths the track's samples, positioned in the recorded region of their time. Ticks
    // stop one step after the last sample, or after `until` source seconds when earlier.
    // Without `glide` the pointer goes where it was recorded, straight between samples.
    explicit CursorSmoother(const CursorTrack& track, double until = std::numeric_limits<double>::infinity(),
        bool glide = true);
    // Smooths samples already in source seconds and picture fractions, in any order.
    // Samples with a non-finite value are left out.
    static CursorSmoother smoothing(std::vector<Sample> samples,
        double until = std::numeric_limits<double>::infinity(), bool glide = true);

    // The track's samples in movie seconds and fractions of the region the movie showed at
    // their stamp, both through TrackPlacement. Samples with a non-finite position are left
    // out; the result is in time order.
    static std::vector<Sample> samplesOf(const CursorTrack& track);

    std::size_t size() const { return xs.size() < ys.size() ? xs.size() : ys.size(); }
    bool empty() const { return size() == 0; }

    // The smoothed position at source time t, interpolated between entries and held at
    // both ends; the first entry for a non-finite t; the picture's middle when empty.
    Point position(double t) const;
};

} // namespace plim
