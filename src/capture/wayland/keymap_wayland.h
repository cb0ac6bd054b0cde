#pragma once
// The keyboard layout the Wayland compositor hands its clients (wl_keyboard.keymap), so
// keys read from the kernel's devices are named as the desktop names them.
//
// Opens a connection of its own for the asking and closes it; call from any thread.

#include <string>

namespace plim {

// The compositor's keymap in xkb's text format; empty when there is no compositor or its
// seat has no keyboard.
std::string compositorKeymap();

} // namespace plim
