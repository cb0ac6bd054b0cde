#pragma once
// Mouse-button presses anywhere on the display, delivered to installed handlers. The X11
// backend listens to XInput 2 raw button events; the scripted one
// delivers what a test presses.
//
// Handlers run on the source's own event thread (the scripted source: the thread that
// calls press). A handler must return quickly and must not call install or remove.

#include "base/error.h"
#include "capture/scripted_delivery.h"

#include <cstdint>
#include <functional>

namespace plim {

class ClickSource {
public:
    enum class Button { left, right, other };
    struct Press {
        Button button = Button::left;
        double x = 0; // global display points, origin at the main display's top-left
        double y = 0; // y downward: negative above the main display
        bool operator==(const Press&) const = default;
    };
    using Handler = std::function<void(const Press&)>;
    using Token = uint64_t;

    virtual ~ClickSource() = default;

    // Starts delivering presses to `handler`. Fails with a sentence when presses cannot
    // be watched (no display, no permission). Thread-safe.
    virtual Result<Token> install(Handler handler) = 0;

    // Stops delivery. When it returns, the handler is not running and will not be called
    // again, so whatever it captured may be destroyed. Unknown tokens are ignored.
    virtual void remove(Token token) = 0;
};

// Delivers presses synchronously on the caller's thread. Thread-safe.
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

} // namespace plim
