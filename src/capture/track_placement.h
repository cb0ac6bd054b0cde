#pragma once
// Where the tracks' stamps land in the movie: the one place that turns a track time into
// movie time and a display point into a place in the recorded picture.
//
// Track times are milliseconds on the recorder's clock; the movie starts
// videoStartOffsetMS later (add the offset to a movie time to get a track time). The
// picture shows the display rectangle until the first window frame key, then the latest
// key at or before the stamp.

#include "base/geometry.h"
#include "capture/cursor_track.h"

#include <cstdint>
#include <vector>

namespace plim {

class TrackPlacement {
public:
    // Keeps the track's geometry and its frame keys in time order (they need not be).
    explicit TrackPlacement(const CursorTrack& track);

    // A track stamp as movie milliseconds / seconds: the stamp less the offset (saturated
    // at the ends of int64).
    int64_t movieMS(int64_t trackMS) const;
    double movieSeconds(int64_t trackMS) const { return static_cast<double>(movieMS(trackMS)) / 1000.0; }

    // The rectangle of the display the movie showed at a track stamp, in display points.
    Rect regionAt(int64_t trackMS) const;

    // A display point at a track stamp as fractions of that rectangle, clamped to [0, 1]
    // from its top-left. One rule for what cannot be placed: an empty or non-finite
    // rectangle gives the middle (0.5, 0.5); a non-finite coordinate gives 0.5 on its axis.
    Point unitPoint(double x, double y, int64_t trackMS) const;

private:
    struct Key {
        int64_t t = 0;
        Rect region;
    };
    int64_t m_offsetMS = 0;
    Rect m_display;
    std::vector<Key> m_keys; // time order
};

} // namespace plim
