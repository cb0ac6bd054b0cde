#pragma once
// The pictures a compositor has shown and the ticks that hand them on (wlr screen source):
// one a tick, in the order they were shown, each stamped with the instant it was shown. A
// tick that finds none hands on the last picture again, stamped with the tick's instant or,
// when a picture shown before the tick may still be on its way, with the instant before
// which all have come: so a late picture keeps its own instant, after the repeat, rather
// than being pushed past it. A compositor that shows more pictures than ticks come fills
// the wait; past `limit` the oldest waiting picture is passed over (and counted).
// Private to capture/wayland/.

#include "capture/ticking_screen_source.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>

namespace plim {

// `Picture` is what waits: for the source, a filled shared-memory buffer, read out into the
// recording's picture only at its tick (so it is fresh in memory for the writer) and never
// when passed over.
template<typename Picture> class ShownPictures {
public:
    static constexpr double minimumGap = minimumStampGap;

    struct Taken {
        std::optional<Picture> picture; // none: the last one again
        double at = 0;
    };

    explicit ShownPictures(size_t limit) : m_limit(std::max<size_t>(1, limit)) { }

    // A picture the compositor showed at uptime `shownAt`; gives back the one passed over to
    // make room, if any.
    std::optional<Picture> add(Picture picture, double shownAt)
    {
        std::optional<Picture> passed;
        if (m_waiting.size() >= m_limit) {
            passed = std::move(m_waiting.front().picture);
            m_waiting.pop_front();
            ++m_passedOver;
        }
        m_waiting.push_back({std::move(picture), shownAt});
        return passed;
    }
    bool empty() const { return m_waiting.empty(); }
    size_t waiting() const { return m_waiting.size(); }

    // What the tick due at uptime `tick` hands on; every picture shown before `settled` has
    // been added.
    Taken take(double tick, double settled)
    {
        Taken taken;
        double at = std::min(tick, settled);
        if (!m_waiting.empty()) {
            taken.picture = std::move(m_waiting.front().picture);
            at = m_waiting.front().at;
            m_waiting.pop_front();
            ++m_fresh;
        } else {
            ++m_repeated;
        }
        // Stamps never go back, and a picture shown before a repeat comes just after it.
        m_lastAt = std::max(at, m_lastAt + minimumGap);
        taken.at = m_lastAt;
        return taken;
    }

    int64_t fresh() const { return m_fresh; } // pictures handed on as shown
    int64_t repeated() const { return m_repeated; } // ticks that handed on the last again
    int64_t passedOver() const { return m_passedOver; }

private:
    struct Shown {
        Picture picture;
        double at = 0;
    };
    size_t m_limit;
    std::deque<Shown> m_waiting;
    double m_lastAt = -std::numeric_limits<double>::infinity();
    int64_t m_fresh = 0;
    int64_t m_repeated = 0;
    int64_t m_passedOver = 0;
};

} // namespace plim
