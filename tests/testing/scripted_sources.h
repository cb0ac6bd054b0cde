#pragma once
// Scripted stand-ins for the capture seams: they answer what a test sets and deliver what
// a test presses, on the test's own thread. All are thread-safe.

#include "capture/click_source.h"
#include "capture/key_activity_source.h"
#include "capture/key_source.h"
#include "capture/pointer_source.h"
#include "capture/window_frame_source.h"
#include "testing/scripted_delivery.h"

#include <map>
#include <mutex>

namespace plim {

// The pointer, the last key-down and window frames, each answering whatever was last set.
class ScriptedPointerSource final : public PointerSource, public KeyActivitySource, public WindowFrameSource {
public:
    std::optional<Point> position() override;
    double secondsSinceLastKeyDown() override;
    std::optional<Rect> windowFrame(uint32_t windowID) override;

    void setPosition(std::optional<Point> point);
    void setSecondsSinceLastKeyDown(double seconds);
    void setWindowFrame(uint32_t windowID, std::optional<Rect> frame);
    // How many times windowFrame has been asked.
    int windowFrameQueries() const;

private:
    mutable std::mutex m_mutex;
    std::optional<Point> m_position;
    double m_sinceKeyDown = 1e9;
    std::map<uint32_t, Rect> m_frames;
    int m_frameQueries = 0;
};

// Delivers presses synchronously on the caller's thread.
class ScriptedClickSource final : public ClickSource {
public:
    Result<Token> install(Handler handler) override { return m_events.install(std::move(handler)); }
    void remove(Token token) override { m_events.remove(token); }

    // Delivers one press to every installed handler.
    void press(const Press& press) { m_events.deliver(press); }
    // Makes the next installs fail, as a source without permission would.
    void setRefusing(bool refusing) { m_events.setRefusing(refusing); }
    int installedCount() const { return m_events.installedCount(); }

private:
    ScriptedDelivery<Press> m_events{"Plim cannot watch the mouse buttons, so clicks are not recorded. "
                                     "Nothing was lost. Allow Plim to read input, then record again."};
};

// Delivers key presses synchronously on the caller's thread.
class ScriptedKeySource final : public KeySource {
public:
    Result<Token> install(Handler handler) override { return m_events.install(std::move(handler)); }
    void remove(Token token) override { m_events.remove(token); }

    void press(const KeyPress& press) { m_events.deliver(press); }
    void setRefusing(bool refusing) { m_events.setRefusing(refusing); }
    int installedCount() const { return m_events.installedCount(); }

private:
    ScriptedDelivery<KeyPress> m_events{"Plim cannot watch the keyboard, so keycaps are not recorded. "
                                        "Nothing was lost. Allow Plim to read input, then record again."};
};

} // namespace plim
