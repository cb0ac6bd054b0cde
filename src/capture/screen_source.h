#pragma once
// Where the capture session's frames come from: a display, a window or an area of the
// screen, delivered as pictures with their capture instants. A desktop (desktop.h) makes
// them; the X11 backend (x11/screen_source_x11.cpp) reads them through MIT-SHM, the wlr
// one (wayland/screen_source_wlr.cpp) through wlr-screencopy.
//
// Contract:
// - create() resolves the subject and fails with the user's sentence when it cannot be
//   recorded (no display, a window that is gone, a subject under 2 points).
// - start() begins delivering on the source's own thread ("plim.capture.video"), one frame
//   per 1/fps tick of the uptime clock (CLOCK_MONOTONIC). `onFrame` gets each frame with
//   the instant the picture was taken, accurate to about a millisecond; it runs on the
//   source's thread and must return quickly (hand the frame on, don't encode there). The
//   frame's pixels belong to the receiver; the source never touches them again.
// - A tick that comes while the previous frame is still being taken or handed on is taken
//   as soon as that frame is done, if that is less than one period late (ticksLost); a tick
//   later than that is skipped and counted in droppedFrames(). Each frame carries the
//   instant it was really taken, so a late frame is never shown early.
// - When the subject goes away (the window closes) the source stops by itself and calls
//   `onEnd` once with the sentence, on its own thread. When the desktop stops handing out
//   the picture (its user stopped sharing the screen), the error's kind is `stopped` and
//   its sentence is the reason worded to follow the time the recording ended ("the desktop
//   stopped sharing the screen").
// - stop() may be called from any thread except the source's own; when it returns no
//   handler runs and none will. The pointer is never in the pictures, except where the
//   desktop hands out no pointer source (wlr: the compositor draws it in).

#include "base/error.h"
#include "base/geometry.h"
#include "base/image.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace plim {

// What the user chose to record.
struct ScreenSubject {
    enum class Kind { display, window, area, device };
    Kind kind = Kind::display;
    std::string displayName; // a display (RandR output) by name; empty: the primary one
    uint32_t windowID = 0;   // the window's X id
    Rect area;               // in global points
    std::string deviceName;  // a plugged-in device (not recordable on this path)

    static ScreenSubject display(std::string name = {}) { return {Kind::display, std::move(name), 0, {}, {}}; }
    static ScreenSubject window(uint32_t id) { return {Kind::window, {}, id, {}, {}}; }
    static ScreenSubject areaOf(Rect rect) { return {Kind::area, {}, 0, rect, {}}; }
};

// A picture and the uptime instant it shows.
struct CapturedFrame {
    Image image;
    double uptime = 0;
};

class ScreenSource {
public:
    using FrameHandler = std::function<void(CapturedFrame&&)>;
    using EndHandler = std::function<void(const Error&)>;

    virtual ~ScreenSource() = default;

    // The captured region in global points, its pixels per point, and its pixel size.
    virtual Rect frame() const = 0;
    virtual double scale() const = 0;
    // The recorded window's X id, for window subjects.
    virtual std::optional<uint32_t> windowID() const = 0;

    virtual Status start(int framesPerSecond, FrameHandler onFrame, EndHandler onEnd) = 0;
    virtual void stop() = 0;

    // Frames delivered and ticks skipped so far. Thread-safe.
    virtual int64_t deliveredFrames() const = 0;
    virtual int64_t droppedFrames() const = 0;
};

// How many ticks a source loses when it is done with a frame at `now` and the next tick was
// due at `next` (uptime seconds, ticks `interval` apart): none while it is less than one
// period behind, then one for every whole period.
inline int64_t ticksLost(double now, double next, double interval)
{
    if (!(now - next >= interval))
        return 0;
    return static_cast<int64_t>((now - next) / interval);
}

} // namespace plim
