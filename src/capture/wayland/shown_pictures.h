#pragma once
// The pictures a compositor has shown and the ticks that hand them on (wlr screen source):
// one a tick, in the order they were shown, each stamped with the instant it was shown. A
// tick that finds none hands on the last picture again, stamped with the tick's instant or,
// when a picture shown before the tick may still be on its way, with the instant before
// which all have come: so a late picture keeps its own instant, after the repeat, rather
// than being pushed past it. A compositor that shows more pictures than ticks come fills
// the wait; past `limit` the oldest waiting picture is passed over (and counted).
// Private to capture/wayland/.

#include "capture/screen_source.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <limits>

namespace plim {

class ShownPictures {
public:
    // Stamps stay this far apart, so that each lands on a tick of its own in the movie (1/600 s).
    static constexpr double minimumGap = 2e-3;

    explicit ShownPictures(size_t limit) : m_limit(std::max<size_t>(1, limit)) {}

    // The picture handed on by ticks until the compositor shows another.
    void setLast(Image image) { m_last = std::move(image); }
    // A picture the compositor showed at uptime `shownAt`.
    void add(Image image, double shownAt)
    {
        if (m_waiting.size() >= m_limit) {
            m_waiting.pop_front();
            ++m_passedOver;
        }
        m_waiting.push_back({std::move(image), shownAt});
    }
    bool empty() const { return m_waiting.empty(); }
    size_t waiting() const { return m_waiting.size(); }

    // The frame for the tick due at uptime `tick`; every picture shown before `settled` has
    // been added.
    CapturedFrame take(double tick, double settled)
    {
        double at = std::min(tick, settled);
        if (!m_waiting.empty()) {
            m_last = std::move(m_waiting.front().image);
            at = m_waiting.front().at;
            m_waiting.pop_front();
            ++m_fresh;
        } else {
            ++m_repeated;
        }
        // Stamps never go back, and a picture shown before a repeat comes just after it.
        m_lastAt = std::max(at, m_lastAt + minimumGap);
        return {m_last, m_lastAt};
    }

    int64_t fresh() const { return m_fresh; }         // pictures handed on as shown
    int64_t repeated() const { return m_repeated; }   // ticks that handed on the last again
    int64_t passedOver() const { return m_passedOver; }

private:
    struct Shown {
        Image image;
        double at = 0;
    };
    size_t m_limit;
    std::deque<Shown> m_waiting;
    Image m_last;
    double m_lastAt = -std::numeric_limits<double>::infinity();
    int64_t m_fresh = 0;
    int64_t m_repeated = 0;
    int64_t m_passedOver = 0;
};

} // namespace plim
