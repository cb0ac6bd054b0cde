#include "capture/track_placement.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace plim {

TrackPlacement::TrackPlacement(const CursorTrack& track)
    : m_offsetMS(track.videoStartOffsetMS)
    , m_display{track.displayX, track.displayY, track.displayWidth, track.displayHeight}
{
    m_keys.reserve(track.frames.size());
    for (const CursorTrack::FrameKey& f : track.frames)
        m_keys.push_back(Key{f.t, {f.x, f.y, f.w, f.h}});
    std::ranges::stable_sort(m_keys, {}, &Key::t);
}

int64_t TrackPlacement::movieMS(int64_t trackMS) const
{
    int64_t out = 0;
    if (!__builtin_sub_overflow(trackMS, m_offsetMS, &out))
        return out;
    return m_offsetMS < 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

Rect TrackPlacement::regionAt(int64_t trackMS) const
{
    auto after = std::ranges::upper_bound(m_keys, trackMS, {}, &Key::t);
    return after == m_keys.begin() ? m_display : (after - 1)->region;
}

Point TrackPlacement::unitPoint(double x, double y, int64_t trackMS) const
{
    const Rect r = regionAt(trackMS);
    if (!r.size().isUsable() || !std::isfinite(r.x) || !std::isfinite(r.y))
        return {0.5, 0.5};
    auto unit = [](double value) { return std::isfinite(value) ? std::clamp(value, 0.0, 1.0) : 0.5; };
    return {unit((x - r.x) / r.width), unit((y - r.y) / r.height)};
}

} // namespace plim
