#pragma once
// The wlroots desktop (sway and other compositors with wlr-screencopy) and its screen
// source, private to capture/.

#include "capture/desktop.h"

namespace plim {

class WaylandConnection;

// The compositor of this Wayland session when it offers wlr-screencopy; otherwise the
// sentence saying what is missing.
Result<std::unique_ptr<Desktop>> createWlrDesktop();

Result<std::unique_ptr<ScreenSource>> createWlrScreenSource(const ScreenSubject& subject);

} // namespace plim
