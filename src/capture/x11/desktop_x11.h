#pragma once
// The X11 desktop and its screen source, private to capture/.

#include "capture/desktop.h"

namespace plim {

// The X display named (else $DISPLAY).
Result<std::unique_ptr<Desktop>> createX11Desktop(const std::optional<std::string>& display);

Result<std::unique_ptr<ScreenSource>> createX11ScreenSource(const ScreenSubject& subject,
    const std::optional<std::string>& display = std::nullopt);

} // namespace plim
