#pragma once
// Where a window is on the display, so the cursor recorder can follow a recorded window
// that moves or resizes (its frame keys).
//
// Backends: an X11 backend asking the server for the window's geometry, made by its
// create...() factory returning Result<std::unique_ptr<WindowFrameSource>>; tests use the
// scripted stand-in in tests/testing/.
//
// Threads: windowFrame() comes from the recorder's poll thread, every 30th tick (twice a
// second), and must answer within a few milliseconds. Timing: the frame at the moment of
// the call. Ownership: borrowed by the recorder, kept alive by its maker until the
// recorder has stopped.

#include "base/geometry.h"

#include <cstdint>
#include <optional>

namespace plim {

class WindowFrameSource {
public:
    virtual ~WindowFrameSource() = default;

    // The window's frame in global display points, or nothing when the window is gone or
    // its frame cannot be read. Degenerate sizes are the recorder's to reject. Required.
    virtual std::optional<Rect> windowFrame(uint32_t windowID) = 0;
};

} // namespace plim
