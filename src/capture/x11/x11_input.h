#pragma once
// Pointer, button and key input from an X server: XInput 2 raw button and key events on
// the root window (presses anywhere on the display, whoever has the focus), key symbols
// and modifiers through xkbcommon, and the pointer and window frames by query.
//
// X11Input owns two connections (events, queries) and one event thread ("plim.input"); click and key
// handlers run on that thread. The thin adapters below give the recorders' seams.

#include "capture/click_source.h"
#include "capture/event_handlers.h"
#include "capture/key_activity_source.h"
#include "capture/key_source.h"
#include "capture/pointer_source.h"
#include "capture/window_frame_source.h"
#include "capture/xkb_keys.h"
#include "capture/x11/x11_connection.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace plim {

class X11Input {
public:
    // Opens the display (else $DISPLAY), checks XInput 2 and the keyboard extension and
    // starts the event thread.
    static Result<std::unique_ptr<X11Input>> open(const std::optional<std::string>& display = std::nullopt);
    ~X11Input();
    X11Input(const X11Input&) = delete;
    X11Input& operator=(const X11Input&) = delete;

    // The handlers the event thread delivers to.
    EventHandlers<ClickSource::Press>& clickHandlers() { return m_clicks; }
    EventHandlers<KeyPress>& keyHandlers() { return m_keys; }

    // Queries on the connection, from any thread.
    std::optional<Point> pointer() const { return m_x11->pointer(); }
    std::optional<Rect> windowFrame(uint32_t window) const { return m_x11->windowFrame(window); }
    double secondsSinceLastKeyDown() const;

    // The uptime of the most recent press the event thread saw (tests and sync checks).
    double lastButtonUptime() const { return m_lastButton.load(); }

    X11Connection& connection() { return *m_x11; }

private:
    X11Input() = default;
    Status setUp();
    void run(std::stop_token stop);
    void handle(const void* event);

    std::unique_ptr<X11Connection> m_x11;    // queries from any thread
    std::unique_ptr<X11Connection> m_events; // read only by the event thread, so no query
                                             // can pull its events into XCB's queue unseen
    uint8_t m_xinputOpcode = 0;
    XkbKeyboard m_xkb;
    std::atomic<double> m_lastKeyDown{-1e9};
    std::atomic<double> m_lastButton{-1e9};
    EventHandlers<ClickSource::Press> m_clicks;
    EventHandlers<KeyPress> m_keys;
    std::jthread m_thread;
};

// The seams over one X11Input, which must outlive them.
class X11PointerSource final : public PointerSource, public KeyActivitySource, public WindowFrameSource {
public:
    explicit X11PointerSource(X11Input& input) : m_input(input) {}
    std::optional<Point> position() override { return m_input.pointer(); }
    double secondsSinceLastKeyDown() override { return m_input.secondsSinceLastKeyDown(); }
    std::optional<Rect> windowFrame(uint32_t windowID) override { return m_input.windowFrame(windowID); }

private:
    X11Input& m_input;
};

using X11ClickSource = HandlersSource<ClickSource, ClickSource::Press>;
using X11KeySource = HandlersSource<KeySource, KeyPress>;

} // namespace plim
