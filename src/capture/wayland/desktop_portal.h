#pragma once
// The desktop as the desktop portal shows it (GNOME, KDE and any desktop with
// xdg-desktop-portal): the screen and the pointer from a screen cast's PipeWire stream.
// Private to capture/.

#include "capture/desktop.h"

namespace plim {

// The portal of this session when it offers a screen cast; otherwise the sentence saying
// what is missing.
Result<std::unique_ptr<Desktop>> createPortalDesktop();

} // namespace plim
