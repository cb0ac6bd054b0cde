#pragma once
// Where the pointer is. The cursor recorder asks 60 times a second.
//
// Backends: an X11 backend that queries the server, made by its create...() factory
// returning Result<std::unique_ptr<PointerSource>>; on Wayland, where no global position
// is given, the libinput backend (capture/linux_input/) follows relative motion over the
// outputs once it knows where the pointer is; tests use the scripted stand-in in
// tests/testing/.
//
// Threads: position() comes from the recorder's poll thread only. It must answer within a
// few milliseconds (one round trip to the display server at most) and never block on
// user input. Timing: the answer is the position at the moment of the call; the recorder
// stamps it with its own clock.
// Ownership: the recorder borrows the source; whoever made it keeps it alive until the
// recorder has stopped.

#include "base/geometry.h"

#include <optional>

namespace plim {

class PointerSource {
public:
    virtual ~PointerSource() = default;

    // The pointer in global display points (origin at the main display's top-left, y
    // downward), or nothing when it cannot be read; the recorder then skips the tick.
    // Required.
    virtual std::optional<Point> position() = 0;
};

} // namespace plim
