#pragma once
// The kernel's input devices as a sequence of events, and what the recorders' seams make of
// them: clicks at the pointer, key presses named through xkbcommon, how long ago a key
// went down, and the pointer moved by relative motion over the output layout (absolute
// devices scaled to it). Devices may come and go while a recording rolls.
//
// InputEvent is the seam between the devices and this logic: the libinput backend
// (input_libinput.cpp) turns libinput's events into it on its device thread; tests replay
// recorded sequences.
//
// Threads: handle() and placePointer() from one thread at a time (the device thread);
// click and key handlers run inside handle(). position(), secondsSinceLastKeyDown() and the
// handlers' install and remove from any thread.
// Timing: events carry the kernel's CLOCK_MONOTONIC stamp, the uptime clock's own.
//
// The pointer: a compositor moves its pointer by the same relative motion, clamped to its
// outputs. Where the pointer starts is not known until the desktop places it, an absolute
// device reports, or motion has pinned it against the layout's edges on both axes (the
// ranges it could be in shrink to a point); until then there is no position and clicks
// are not delivered, so no click lands in a wrong place.

#include "base/clock.h"
#include "base/error.h"
#include "base/geometry.h"
#include "base/image.h"
#include "capture/click_source.h"
#include "capture/event_handlers.h"
#include "capture/key_activity_source.h"
#include "capture/key_source.h"
#include "capture/pointer_source.h"
#include "capture/xkb_keys.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace plim {

struct InputEvent {
    enum class Kind {
        added,    // a device was plugged in (or found at start)
        removed,  // it was unplugged: whatever it held is released
        key,      // `code` (linux/input-event-codes.h KEY_*) went down or up
        button,   // `code` (BTN_LEFT...) went down or up
        motion,   // relative motion by (x, y) points
        absolute, // an absolute device at (x, y), each 0 to 1 across its range
    };
    Kind kind = Kind::key;
    uint32_t device = 0; // the device's number while it is plugged in
    double at = 0;       // uptime seconds
    uint32_t code = 0;
    bool down = false;
    double x = 0;
    double y = 0;
};

class InputTracker final : public PointerSource, public KeyActivitySource {
public:
    // `layout`: the outputs in global points, the main one first. `keymap`: the desktop's
    // keymap (xkb text); empty for xkbcommon's default (XKB_DEFAULT_LAYOUT and so on).
    // Fails with a sentence when there is no output or the keymap does not compile.
    static Result<std::unique_ptr<InputTracker>> create(std::vector<Rect> layout, const std::string& keymap = {},
        const Clock& clock = UptimeClock::shared());
    InputTracker(const InputTracker&) = delete;
    InputTracker& operator=(const InputTracker&) = delete;

    void handle(const InputEvent& event);
    // The desktop says where the pointer is (clamped to the layout).
    void placePointer(Point at);
    // Clicks land where `pointer` says (a stream's cursor metadata) rather than where the
    // motion took the pointer. Call before events flow; `pointer` must outlive the tracker.
    void placeClicksBy(PointerSource* pointer) { m_clickPlace = pointer; }

    std::optional<Point> position() override;
    double secondsSinceLastKeyDown() override;

    EventHandlers<ClickSource::Press>& clickHandlers() { return m_clicks; }
    EventHandlers<KeyPress>& keyHandlers() { return m_keys; }

private:
    InputTracker(std::vector<Rect> layout, const Clock& clock);
    void keyChange(uint32_t device, uint32_t code, bool down, double at);
    void buttonChange(uint32_t device, uint32_t code, bool down, double at);
    void move(double dx, double dy);
    Point clamped(Point p) const;

    struct Held {
        std::set<uint32_t> keys;
        std::set<uint32_t> buttons;
    };

    const std::vector<Rect> m_layout;
    const Rect m_bounds;
    const Clock& m_clock;
    XkbKeyboard m_xkb;
    std::map<uint32_t, Held> m_devices;         // device thread only
    std::map<uint32_t, int> m_keysDown;         // how many devices hold each key
    std::map<uint32_t, int> m_buttonsDown;      // and each button
    std::atomic<double> m_lastKeyDown{-1e9};
    PointerSource* m_clickPlace = nullptr;

    mutable std::mutex m_lock; // guards the pointer
    std::optional<Point> m_pointer;
    // Until the pointer is known: the ranges it may be in on each axis.
    double m_minX, m_maxX, m_minY, m_maxY;

    EventHandlers<ClickSource::Press> m_clicks;
    EventHandlers<KeyPress> m_keys;
};

// Where the pointer is in a picture the desktop drew it into (`drawn`), given pictures of
// the same screen without it taken just before and just after (`bare`, `bareAgain`): the
// top-left corner of the pixels that differ from both, where an arrow has its tip. Nothing
// when no pointer shows, the screen changed too much to tell, or the sizes differ. In the
// pictures' pixels.
std::optional<Point> pointerInPictures(const Image& drawn, const Image& bare, const Image& bareAgain);

} // namespace plim
