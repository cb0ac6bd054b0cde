#include "capture/xkb_keys.h"

#include <xkbcommon/xkbcommon.h>

namespace plim {

XkbKeyboard::~XkbKeyboard()
{
    if (state)
        xkb_state_unref(state);
    if (keymap)
        xkb_keymap_unref(keymap);
    if (context)
        xkb_context_unref(context);
}

std::optional<KeyPress> xkbKeyPress(xkb_state* state, uint32_t keycode, double at)
{
    KeyPress pressed;
    pressed.at = at;
    pressed.keysym = xkb_state_key_get_one_sym(state, keycode);
    auto active = [&](const char* name) {
        return xkb_state_mod_name_is_active(state, name, XKB_STATE_MODS_EFFECTIVE) > 0;
    };
    pressed.modifiers.control = active(XKB_MOD_NAME_CTRL);
    pressed.modifiers.option = active(XKB_MOD_NAME_ALT);
    pressed.modifiers.shift = active(XKB_MOD_NAME_SHIFT);
    pressed.modifiers.command = active(XKB_MOD_NAME_LOGO);
    bool modifierOnly = xkb_keymap_key_repeats(xkb_state_get_keymap(state), keycode) == 0
        && pressed.keysym >= XKB_KEY_Shift_L && pressed.keysym <= XKB_KEY_Hyper_R;
    if (modifierOnly || pressed.keysym == XKB_KEY_NoSymbol)
        return std::nullopt;
    return pressed;
}

} // namespace plim
