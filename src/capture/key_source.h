#pragma once
// Key presses anywhere in the session, as a platform-neutral event: the key's X keysym
// (an xkb_keysym_t value) and the modifiers held.
//
// Backends: an X11 backend translating XInput 2 raw key events through xkbcommon, made by
// its create...() factory returning Result<std::unique_ptr<KeySource>>; on Wayland the
// libinput backend (capture/linux_input/) naming evdev keys the same way; tests use the
// scripted stand-in in tests/testing/, which delivers what a test presses.
//
// Threads: install and remove may come from any thread; handlers run on the source's own
// event thread, one at a time, and must return quickly. Timing: a key-down is delivered
// within a few milliseconds; the recorder takes the source's stamp `at` when there is one,
// else its own clock on arrival. Ownership: the source keeps the handler until remove; its
// maker keeps it alive until then.
//
// Modifier names follow the captions they make: control is Control (⌃), option is Alt
// (⌥), shift is Shift (⇧), command is Super (⌘).

#include "base/error.h"

#include <cstdint>
#include <functional>

namespace plim {

struct KeyModifiers {
    bool control = false;
    bool option = false;
    bool shift = false;
    bool command = false;
    bool operator==(const KeyModifiers&) const = default;
};

// One key going down. `keysym` is the symbol the key makes with Control, Alt and Super
// ignored (Shift may or may not be applied: captions upper-case letters either way).
struct KeyPress {
    uint32_t keysym = 0;
    KeyModifiers modifiers;
    double at = -1; // uptime seconds when the key went down, if the source knows; else negative
    bool operator==(const KeyPress&) const = default;
};

class KeySource {
public:
    using Handler = std::function<void(const KeyPress&)>;
    using Token = uint64_t;

    virtual ~KeySource() = default;

    // Starts delivering key-down events (never key-up or modifier-only changes) to
    // `handler`, on the source's own event thread. Fails with a sentence when keys cannot
    // be watched. Thread-safe.
    virtual Result<Token> install(Handler handler) = 0;

    // Stops delivery. When it returns, the handler is not running and will not be called
    // again. Unknown tokens are ignored. Must not be called from inside a handler.
    virtual void remove(Token token) = 0;
};

} // namespace plim
