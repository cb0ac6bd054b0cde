#pragma once
// Mouse-button presses anywhere on the display, delivered to installed handlers.
//
// Backends: an X11 backend listening to XInput 2 raw button events, made by its
// create...() factory returning Result<std::unique_ptr<ClickSource>>; on Wayland the
// libinput backend (capture/linux_input/, the kernel's devices); tests use the
// scripted stand-in in tests/testing/, which delivers what a test presses.
//
// Threads: install and remove may come from any thread. Handlers run on the source's own
// event thread (the scripted source: the thread that calls press), one at a time; a
// handler must return quickly and must not call install or remove.
// Timing: a press is delivered within a few milliseconds of the button going down, or
// later under load; a source that knows when the button went down says so in `at` (the
// X11 backend takes the server's own stamp), else the recorder stamps it on arrival.
// Ownership: the source keeps the handler until remove; whoever made the source keeps it
// alive until every handler has been removed.

#include "base/error.h"

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
        double at = -1; // uptime seconds when the button went down, if the source knows; else negative
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

} // namespace plim
