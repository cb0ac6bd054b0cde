#pragma once
// Pointer, button and key input from an X server: XInput 2 raw button and key events on
// the root window (presses anywhere on the display, whoever has the focus), key symbols
// and modifiers through xkbcommon, and the pointer and window frames by query.
//
// X11Input owns two connections (events, queries) and one event thread ("plim.input"); click and key
// handlers run on that thread. The thin adapters below give the recorders' seams.

#include "capture/click_source.h"
#include "capture/key_activity_source.h"
#include "capture/key_source.h"
#include "capture/pointer_source.h"
#include "capture/window_frame_source.h"
#include "capture/x11/x11_connection.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

struct xkb_context;
struct xkb_keymap;
struct xkb_state;

namespace plim {

// Handlers called on the event thread. remove() waits for a running handler.
template<typename Event>
class EventHandlers {
public:
    using Handler = std::function<void(const Event&)>;
    uint64_t install(Handler handler)
    {
        std::lock_guard lock(m_lock);
        m_handlers.emplace(m_next, std::move(handler));
        return m_next++;
    }
    void remove(uint64_t token)
    {
        std::lock_guard lock(m_lock);
        m_handlers.erase(token);
    }
    void deliver(const Event& event)
    {
        std::lock_guard lock(m_lock);
        for (auto& [token, handler] : m_handlers)
            handler(event);
    }

private:
    std::mutex m_lock; // held while handlers run
    std::map<uint64_t, Handler> m_handlers;
    uint64_t m_next = 1;
};

class X11Input {
public:
    // Opens the display (else $DISPLAY), checks XInput 2 and the keyboard extension and
    // starts the event thread.
    static Result<std::unique_ptr<X11Input>> open(const std::optional<std::string>& display = std::nullopt);
    ~X11Input();
    X11Input(const X11Input&) = delete;
    X11Input& operator=(const X11Input&) = delete;

    // Installs for delivery on the event thread. Thread-safe; remove waits for a running handler.
    ClickSource::Token installClicks(ClickSource::Handler handler) { return m_clicks.install(std::move(handler)); }
    void removeClicks(ClickSource::Token token) { m_clicks.remove(token); }
    KeySource::Token installKeys(KeySource::Handler handler) { return m_keys.install(std::move(handler)); }
    void removeKeys(KeySource::Token token) { m_keys.remove(token); }

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
    xkb_context* m_context = nullptr;
    xkb_keymap* m_keymap = nullptr;
    xkb_state* m_state = nullptr;
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

// A click or key seam over the X11Input's handlers of that kind.
template <class Source, auto install_, auto remove_>
class X11EventSource final : public Source {
public:
    explicit X11EventSource(X11Input& input) : m_input(input) {}
    Result<typename Source::Token> install(typename Source::Handler handler) override
    {
        return (m_input.*install_)(std::move(handler));
    }
    void remove(typename Source::Token token) override { (m_input.*remove_)(token); }

private:
    X11Input& m_input;
};

using X11ClickSource = X11EventSource<ClickSource, &X11Input::installClicks, &X11Input::removeClicks>;
using X11KeySource = X11EventSource<KeySource, &X11Input::installKeys, &X11Input::removeKeys>;

} // namespace plim
