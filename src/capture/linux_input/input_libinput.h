#pragma once
// Clicks, keys and the pointer from the kernel's input devices through libinput, for
// desktops that hand applications none of them (Wayland). Devices are opened through
// libinput's udev seat, so the user must be able to read /dev/input (the input group).
// Devices plugged in or unplugged while it runs are taken or let go.
//
// Threads: one thread of its own ("plim.libinput") reads the devices and runs the click
// and key handlers; the sources keep their seams' contracts (input_events.h).

#include "base/files.h"
#include "base/geometry.h"
#include "capture/desktop.h"

#include <optional>
#include <string>
#include <vector>

namespace plim {

struct LibinputOptions {
    std::vector<Rect> layout;       // the outputs in global points, the main one first
    std::string keymap;             // the desktop's keymap (xkb text); empty for the default
    std::optional<Point> pointer;   // where the pointer is, when the desktop knows
    PointerSource* clicksAt = nullptr; // where clicks land, when the desktop follows the
                                       // pointer itself (it outlives the inputs)
    fs::path devices = "/dev/input";
};

// Why no input device in `folder` can be read, for the user; nothing when one can.
std::optional<std::string> inputDevicesRefusal(const fs::path& folder);

// The pointer, key-activity, click and key sources over the devices (no window frames).
// The pointer has a position once it is known (input_events.h). Fails with a sentence
// (Error::Kind::refused) saying what is missing, that the recording rolls on without
// clicks and keys, and what to do.
Result<DesktopInputs> openLibinputInputs(const LibinputOptions& options);

} // namespace plim
