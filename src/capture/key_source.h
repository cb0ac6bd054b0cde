#pragma once
// Key presses anywhere in the session, as a platform-neutral event: the key's X keysym
// (an xkb_keysym_t value) and the modifiers held. The X11 backend translates XInput 2 raw
// key events through xkbcommon; the scripted one delivers what
// a test presses.
//
// Modifier names follow the captions they make: control is Control (⌃), option is Alt
// (⌥), shift is Shift (⇧), command is Super (⌘).

#include "base/error.h"
#include "capture/scripted_delivery.h"

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

// Delivers presses synchronously on the caller's thread. Thread-safe.
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
