#pragma once
// Key presses anywhere in the session, as a platform-neutral event: the key's X keysym
// (an xkb_keysym_t value) and the modifiers held. The X11 backend translates XInput 2 raw
// key events through xkbcommon; the scripted one (key_source_scripted.cpp) delivers what
// a test presses.
//
// Modifier names follow the captions they make: control is Control (⌃), option is Alt
// (⌥), shift is Shift (⇧), command is Super (⌘).

#include "base/error.h"

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>

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
    Result<Token> install(Handler handler) override;
    void remove(Token token) override;

    void press(const KeyPress& press);
    void setRefusing(bool refusing);
    int installedCount() const;

private:
    mutable std::mutex m_mutex;
    std::recursive_mutex m_delivery;
    std::map<Token, Handler> m_handlers;
    Token m_next = 1;
    bool m_refusing = false;
};

} // namespace plim
