#pragma once
// The wlroots desktop (sway and other compositors with wlr-screencopy) and its screen
// source, private to capture/.

#include "capture/desktop.h"

#include <atomic>
#include <memory>

namespace plim {

class WaylandConnection;

// The compositor of this Wayland session when it offers wlr-screencopy; otherwise the
// sentence saying what is missing.
Result<std::unique_ptr<Desktop>> createWlrDesktop();

// The compositor draws the pointer into the pictures while `drawPointer` holds (always
// when there is none); the source reads it when it starts.
Result<std::unique_ptr<ScreenSource>> createWlrScreenSource(const ScreenSubject& subject,
    std::shared_ptr<const std::atomic<bool>> drawPointer = nullptr);

} // namespace plim
