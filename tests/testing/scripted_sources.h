#pragma once
// Scripted stand-ins for the capture seams: they answer what a test sets and deliver what
// a test presses, on the test's own thread. All are thread-safe.

#include "capture/click_source.h"
#include "capture/event_handlers.h"
#include "capture/key_activity_source.h"
#include "capture/key_source.h"
#include "capture/pointer_source.h"
#include "capture/window_frame_source.h"

#include <map>
#include <mutex>
#include <set>
#include <type_traits>

namespace plim {

// The pointer, the last key-down and window frames, each answering whatever was last set.
class ScriptedPointerSource final : public PointerSource, public KeyActivitySource, public WindowFrameSource {
public:
    std::optional<Point> position() override
    {
        std::lock_guard lock(m_mutex);
        return m_position;
    }
    double secondsSinceLastKeyDown() override
    {
        std::lock_guard lock(m_mutex);
        return m_sinceKeyDown;
    }
    std::optional<Rect> windowFrame(uint32_t windowID) override
    {
        std::lock_guard lock(m_mutex);
        ++m_frameQueries;
        auto it = m_frames.find(windowID);
        return it == m_frames.end() ? std::nullopt : std::optional(it->second);
    }

    void setPosition(std::optional<Point> point)
    {
        std::lock_guard lock(m_mutex);
        m_position = point;
    }
    void setSecondsSinceLastKeyDown(double seconds)
    {
        std::lock_guard lock(m_mutex);
        m_sinceKeyDown = seconds;
    }
    void setWindowFrame(uint32_t windowID, std::optional<Rect> frame)
    {
        std::lock_guard lock(m_mutex);
        if (frame)
            m_frames[windowID] = *frame;
        else
            m_frames.erase(windowID);
    }
    // How many times windowFrame has been asked.
    int windowFrameQueries() const
    {
        std::lock_guard lock(m_mutex);
        return m_frameQueries;
    }

private:
    mutable std::mutex m_mutex;
    std::optional<Point> m_position;
    double m_sinceKeyDown = 1e9;
    std::map<uint32_t, Rect> m_frames;
    int m_frameQueries = 0;
};

// A click or key source over the same handlers the real backends keep, delivering what a
// test presses on the caller's thread. While refusing, installs fail with the sentence a
// source without permission gives.
template<class Source, typename Event> class ScriptedEventSource final : public Source {
public:
    Result<typename Source::Token> install(typename Source::Handler handler) override
    {
        std::lock_guard lock(m_mutex);
        if (m_refusing)
            return fail(refusal);
        return *m_installed.insert(m_handlers.install(std::move(handler))).first;
    }
    void remove(typename Source::Token token) override
    {
        m_handlers.remove(token);
        std::lock_guard lock(m_mutex);
        m_installed.erase(token);
    }

    void press(const Event& event) { m_handlers.deliver(event); }
    void setRefusing(bool refusing)
    {
        std::lock_guard lock(m_mutex);
        m_refusing = refusing;
    }
    int installedCount() const
    {
        std::lock_guard lock(m_mutex);
        return static_cast<int>(m_installed.size());
    }

private:
    static constexpr const char* refusal = std::is_same_v<Source, ClickSource>
        ? "Plim cannot watch the mouse buttons, so clicks are not recorded. Nothing was lost. Allow Plim to read "
          "input, then record again."
        : "Plim cannot watch the keyboard, so keycaps are not recorded. Nothing was lost. Allow Plim to read input, "
          "then record again.";
    EventHandlers<Event> m_handlers;
    mutable std::mutex m_mutex; // guards the fields below
    std::set<typename Source::Token> m_installed;
    bool m_refusing = false;
};

using ScriptedClickSource = ScriptedEventSource<ClickSource, ClickSource::Press>;
using ScriptedKeySource = ScriptedEventSource<KeySource, KeyPress>;

} // namespace plim
