#include "capture/linux_input/input_events.h"

#include "capture/xkb_keys.h"

#include <linux/input-event-codes.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

// Evdev codes are xkb keycodes less 8.
constexpr uint32_t xkbOffset = 8;

// How close the ranges must come before the pointer counts as found.
constexpr double foundWithin = 0.5;

Rect boundsOf(const std::vector<Rect>& layout)
{
    if (layout.empty())
        return {};
    double x0 = layout[0].x, y0 = layout[0].y, x1 = layout[0].maxX(), y1 = layout[0].maxY();
    for (const Rect& r : layout) {
        x0 = std::min(x0, r.x);
        y0 = std::min(y0, r.y);
        x1 = std::max(x1, r.maxX());
        y1 = std::max(y1, r.maxY());
    }
    return {x0, y0, x1 - x0, y1 - y0};
}

// The last point of a rectangle is a point in from its far edges, as the compositor keeps
// its pointer on the last pixel.
double lastX(const Rect& r) { return r.x + std::max(0.0, r.width - 1); }
double lastY(const Rect& r) { return r.y + std::max(0.0, r.height - 1); }

} // namespace

InputTracker::InputTracker(std::vector<Rect> layout, const Clock& clock)
    : m_layout(std::move(layout)), m_bounds(boundsOf(m_layout)), m_clock(clock), m_minX(m_bounds.x),
      m_maxX(lastX(m_bounds)), m_minY(m_bounds.y), m_maxY(lastY(m_bounds))
{
}

Result<std::unique_ptr<InputTracker>> InputTracker::create(std::vector<Rect> layout, const std::string& keymap,
    const Clock& clock)
{
    std::erase_if(layout, [](const Rect& r) { return !(r.width >= 1) || !(r.height >= 1); });
    if (layout.empty())
        return fail("The desktop reports no display, so the pointer and clicks have nowhere to be placed. "
                    "The recording rolls on without clicks and keys.");
    auto tracker = std::unique_ptr<InputTracker>(new InputTracker(std::move(layout), clock));
    tracker->m_xkb.context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    if (tracker->m_xkb.context) {
        tracker->m_xkb.keymap = keymap.empty()
            ? xkb_keymap_new_from_names(tracker->m_xkb.context, nullptr, XKB_KEYMAP_COMPILE_NO_FLAGS)
            : xkb_keymap_new_from_string(tracker->m_xkb.context, keymap.c_str(), XKB_KEYMAP_FORMAT_TEXT_V1,
                  XKB_KEYMAP_COMPILE_NO_FLAGS);
    }
    if (tracker->m_xkb.keymap)
        tracker->m_xkb.state = xkb_state_new(tracker->m_xkb.keymap);
    if (!tracker->m_xkb.state)
        return fail("Plim could not read the keyboard layout, so keys cannot be named. "
                    "The recording rolls on without clicks and keys.");
    return tracker;
}

void InputTracker::handle(const InputEvent& event)
{
    switch (event.kind) {
    case InputEvent::Kind::added:
        m_devices.try_emplace(event.device);
        return;
    case InputEvent::Kind::removed: {
        // An unplugged keyboard must not leave Control held for the keys that follow.
        auto found = m_devices.find(event.device);
        if (found == m_devices.end())
            return;
        Held held = found->second;
        for (uint32_t key : held.keys)
            keyChange(event.device, key, false, event.at);
        for (uint32_t button : held.buttons)
            buttonChange(event.device, button, false, event.at);
        m_devices.erase(event.device);
        return;
    }
    case InputEvent::Kind::key:
        keyChange(event.device, event.code, event.down, event.at);
        return;
    case InputEvent::Kind::button:
        buttonChange(event.device, event.code, event.down, event.at);
        return;
    case InputEvent::Kind::motion:
        if (std::isfinite(event.x) && std::isfinite(event.y))
            move(event.x, event.y);
        return;
    case InputEvent::Kind::absolute:
        if (std::isfinite(event.x) && std::isfinite(event.y))
            placePointer({m_bounds.x + std::clamp(event.x, 0.0, 1.0) * m_bounds.width,
                m_bounds.y + std::clamp(event.y, 0.0, 1.0) * m_bounds.height});
        return;
    }
}

// A key held down repeats nothing: the same key again from the same device, or from a
// second keyboard while the first holds it, is no new press.
void InputTracker::keyChange(uint32_t device, uint32_t code, bool down, double at)
{
    auto& held = m_devices[device].keys;
    if (down) {
        if (!held.insert(code).second || m_keysDown[code]++ > 0)
            return;
        m_lastKeyDown.store(at);
        auto pressed = xkbKeyPress(m_xkb.state, code + xkbOffset, at);
        xkb_state_update_key(m_xkb.state, code + xkbOffset, XKB_KEY_DOWN);
        if (pressed)
            m_keys.deliver(*pressed);
        return;
    }
    if (held.erase(code) == 0)
        return;
    if (--m_keysDown[code] > 0)
        return;
    m_keysDown.erase(code);
    xkb_state_update_key(m_xkb.state, code + xkbOffset, XKB_KEY_UP);
}

void InputTracker::buttonChange(uint32_t device, uint32_t code, bool down, double at)
{
    auto& held = m_devices[device].buttons;
    if (!down) {
        if (held.erase(code) && --m_buttonsDown[code] == 0)
            m_buttonsDown.erase(code);
        return;
    }
    if (!held.insert(code).second || m_buttonsDown[code]++ > 0)
        return;
    if (code != BTN_LEFT && code != BTN_RIGHT)
        return; // the wheel's button and extra buttons
    auto where = m_clickPlace ? m_clickPlace->position() : position();
    if (!where)
        return;
    m_clicks.deliver({code == BTN_LEFT ? ClickSource::Button::left : ClickSource::Button::right, where->x, where->y,
        at});
}

Point InputTracker::clamped(Point p) const
{
    Point best = p;
    double bestDistance = INFINITY;
    for (const Rect& r : m_layout) {
        Point q{std::clamp(p.x, r.x, lastX(r)), std::clamp(p.y, r.y, lastY(r))};
        double distance = std::hypot(q.x - p.x, q.y - p.y);
        if (distance < bestDistance) {
            best = q;
            bestDistance = distance;
        }
    }
    return best;
}

void InputTracker::move(double dx, double dy)
{
    std::lock_guard lock(m_lock);
    if (m_pointer) {
        m_pointer = clamped({m_pointer->x + dx, m_pointer->y + dy});
        return;
    }
    m_minX = std::clamp(m_minX + dx, m_bounds.x, lastX(m_bounds));
    m_maxX = std::clamp(m_maxX + dx, m_bounds.x, lastX(m_bounds));
    m_minY = std::clamp(m_minY + dy, m_bounds.y, lastY(m_bounds));
    m_maxY = std::clamp(m_maxY + dy, m_bounds.y, lastY(m_bounds));
    if (m_maxX - m_minX < foundWithin && m_maxY - m_minY < foundWithin)
        m_pointer = clamped({(m_minX + m_maxX) / 2, (m_minY + m_maxY) / 2});
}

void InputTracker::placePointer(Point at)
{
    if (!std::isfinite(at.x) || !std::isfinite(at.y))
        return;
    std::lock_guard lock(m_lock);
    m_pointer = clamped(at);
}

std::optional<Point> InputTracker::position()
{
    std::lock_guard lock(m_lock);
    return m_pointer;
}

std::optional<Point> pointerInPictures(const Image& drawn, const Image& bare, const Image& bareAgain)
{
    // No pointer picture is larger than this, at any scale.
    constexpr int largestPointer = 256;
    for (const Image* image : {&bare, &bareAgain})
        if (image->isEmpty() || image->width != drawn.width || image->height != drawn.height)
            return std::nullopt;
    int x0 = drawn.width, y0 = drawn.height, x1 = -1, y1 = -1;
    for (int y = 0; y < drawn.height; ++y) {
        const auto* d = reinterpret_cast<const uint32_t*>(drawn.row(y));
        const auto* a = reinterpret_cast<const uint32_t*>(bare.row(y));
        const auto* b = reinterpret_cast<const uint32_t*>(bareAgain.row(y));
        for (int x = 0; x < drawn.width; ++x) {
            if (((d[x] ^ a[x]) & 0xffffff) == 0 || ((d[x] ^ b[x]) & 0xffffff) == 0)
                continue;
            x0 = std::min(x0, x);
            x1 = std::max(x1, x);
            y0 = std::min(y0, y);
            y1 = y;
        }
    }
    if (x1 < 0 || x1 - x0 >= largestPointer || y1 - y0 >= largestPointer)
        return std::nullopt;
    return Point{double(x0), double(y0)};
}

double InputTracker::secondsSinceLastKeyDown() { return m_clock.uptime() - m_lastKeyDown.load(); }

} // namespace plim
