#pragma once
// Key presses named through xkbcommon, as every key backend makes them: the key's symbol
// and the modifiers held, read from the keyboard state before it takes the key.

#include "capture/key_source.h"

#include <optional>

struct xkb_context;
struct xkb_keymap;
struct xkb_state;

namespace plim {

// A keyboard's context, keymap and state, let go together.
struct XkbKeyboard {
    xkb_context* context = nullptr;
    xkb_keymap* keymap = nullptr;
    xkb_state* state = nullptr;
    XkbKeyboard() = default;
    ~XkbKeyboard();
    XkbKeyboard(const XkbKeyboard&) = delete;
    XkbKeyboard& operator=(const XkbKeyboard&) = delete;
};

// The press a key going down makes in `state` (an xkb keycode; the state is not changed),
// or nothing for a modifier key on its own or a key without a symbol.
std::optional<KeyPress> xkbKeyPress(xkb_state* state, uint32_t keycode, double at);

} // namespace plim
