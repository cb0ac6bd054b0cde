#pragma once
// What the stage shows at one output instant: zoom, pointer, touch, clicks, masks,
// keycaps, caption line, transition and camera picture. Made by a moment source (the
// recorded plim or the live session) and drawn by the stage renderer.

#include "capture/cursor_track.h"
#include "capture/keystroke_track.h"
#include "plan/edit_plan.h"
#include "plan/zoom_state.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plim {

// A decoded camera picture shared without copying: 32-bit premultiplied ARGB in native
// byte order (cairo's ARGB32), `stride` bytes per row, top row first. Equal when it is
// the same picture.
struct CameraPicture {
    int width = 0;
    int height = 0;
    int stride = 0;
    std::shared_ptr<const std::vector<uint8_t>> pixels;
    bool operator==(const CameraPicture&) const = default;

    bool isUsable() const
    {
        return width > 0 && height > 0 && stride >= width * 4 && pixels
            && pixels->size() >= static_cast<size_t>(stride) * static_cast<size_t>(height);
    }
};

struct StageMoment {
    // Positions are fractions of the recorded picture from its top-left.
    struct Cursor {
        double x = 0.5;
        double y = 0.5;
        double previousX = 0.5; // where it was one output frame earlier, for motion streaks
        double previousY = 0.5;
        double alpha = 1;       // 0 = hidden (a resting pointer fades out)
        double press = 0;       // above 0 just after a click: drawn pressed
        bool operator==(const Cursor&) const = default;
    };

    struct Touch {
        double x = 0.5;
        double y = 0.5;
        bool operator==(const Touch&) const = default;
    };

    struct Click {
        double x = 0.5;
        double y = 0.5;
        double age = 0; // seconds since the click
        bool operator==(const Click&) const = default;
    };

    ZoomState zoom;
    double zoomVelocity = 0;
    std::optional<Cursor> cursor;
    std::optional<Touch> touch;
    std::vector<Click> clicks;
    std::vector<MaskRegion> masks;
    std::vector<KeyEvent> keycaps;
    double keycapTime = 0; // source seconds the keycaps are drawn at
    std::optional<std::string> caption;
    std::optional<EditPlan::TransitionPhase> transition;
    std::optional<CameraPicture> cameraFrame;
    bool operator==(const StageMoment&) const = default;
};

// Gives the moment to draw at each output instant. Calls come from one rendering thread at
// a time; a recorded source answers for any time in any order, a live one is asked once
// per frame in time order.
class StageMomentSource {
public:
    virtual ~StageMomentSource() = default;

    // The moment at source time `rawTime` (seconds); `dt` is the time between output
    // frames in source seconds. Never fails, whatever the time.
    virtual StageMoment moment(double rawTime, double dt) = 0;
};

} // namespace plim
