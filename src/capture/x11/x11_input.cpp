#include "capture/x11/x11_input.h"

#include "base/clock.h"
#include "base/log.h"
#include "capture/xkb_keys.h"

#include <xcb/xcb.h>
#include <xcb/xinput.h>
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

#include <poll.h>
#include <pthread.h>

#include <cstdlib>

namespace plim {

Result<std::unique_ptr<X11Input>> X11Input::open(const std::optional<std::string>& display)
{
    auto input = std::unique_ptr<X11Input>(new X11Input());
    input->m_x11 = PLIM_TRY(X11Connection::open(display));
    input->m_events = PLIM_TRY(X11Connection::open(display));
    PLIM_TRY(input->setUp());
    X11Input* self = input.get();
    input->m_thread = std::jthread([self](std::stop_token stop) { self->run(stop); });
    return input;
}

X11Input::~X11Input()
{
    if (m_thread.joinable()) {
        m_thread.request_stop();
        m_thread.join();
    }
}

Status X11Input::setUp()
{
    xcb_connection_t* c = m_events->connection();
    const char* refusal = "The X server has no XInput 2, so clicks and keys cannot be watched. "
                          "The recording rolls without them.";
    auto ext = xcb_get_extension_data(c, &xcb_input_id);
    if (!ext || !ext->present)
        return fail(refusal);
    m_xinputOpcode = ext->major_opcode;
    std::unique_ptr<xcb_input_xi_query_version_reply_t, decltype(&std::free)> version(
        xcb_input_xi_query_version_reply(c, xcb_input_xi_query_version(c, 2, 2), nullptr), &std::free);
    if (!version || version->major_version < 2)
        return fail(refusal);

    struct {
        xcb_input_event_mask_t head;
        uint32_t mask;
    } mask{};
    mask.head.deviceid = XCB_INPUT_DEVICE_ALL_MASTER;
    mask.head.mask_len = 1;
    mask.mask = XCB_INPUT_XI_EVENT_MASK_RAW_KEY_PRESS | XCB_INPUT_XI_EVENT_MASK_RAW_KEY_RELEASE
        | XCB_INPUT_XI_EVENT_MASK_RAW_BUTTON_PRESS;
    if (auto* error = xcb_request_check(c, xcb_input_xi_select_events_checked(c, m_events->root(), 1, &mask.head))) {
        std::free(error);
        return fail(refusal);
    }

    if (!xkb_x11_setup_xkb_extension(c, XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
            XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, nullptr, nullptr))
        return fail("The X server has no keyboard extension, so keys cannot be named. The recording rolls without keycaps.");
    m_xkb.context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    int32_t keyboard = xkb_x11_get_core_keyboard_device_id(c);
    if (m_xkb.context && keyboard >= 0)
        m_xkb.keymap = xkb_x11_keymap_new_from_device(m_xkb.context, c, keyboard, XKB_KEYMAP_COMPILE_NO_FLAGS);
    if (m_xkb.keymap)
        m_xkb.state = xkb_x11_state_new_from_device(m_xkb.keymap, c, keyboard);
    if (!m_xkb.state)
        return fail("Plim could not read the keyboard layout, so keys cannot be named. The recording rolls without keycaps.");
    xcb_flush(c);
    return {};
}

double X11Input::secondsSinceLastKeyDown() const { return systemUptime() - m_lastKeyDown.load(); }

void X11Input::run(std::stop_token stop)
{
    pthread_setname_np(pthread_self(), "plim.input");
    xcb_connection_t* c = m_events->connection();
    pollfd fd{xcb_get_file_descriptor(c), POLLIN, 0};
    while (!stop.stop_requested() && !xcb_connection_has_error(c)) {
        while (xcb_generic_event_t* event = xcb_poll_for_event(c)) {
            handle(event);
            std::free(event);
        }
        ::poll(&fd, 1, 20);
    }
}

void X11Input::handle(const void* raw)
{
    auto* event = static_cast<const xcb_generic_event_t*>(raw);
    if ((event->response_type & 0x7f) != XCB_GE_GENERIC)
        return;
    auto* generic = static_cast<const xcb_ge_generic_event_t*>(raw);
    if (generic->extension != m_xinputOpcode)
        return;
    double now = systemUptime();
    switch (generic->event_type) {
    case XCB_INPUT_RAW_BUTTON_PRESS: {
        auto* press = static_cast<const xcb_input_raw_button_press_event_t*>(raw);
        ClickSource::Button button = press->detail == 1 ? ClickSource::Button::left
            : press->detail == 3                        ? ClickSource::Button::right
                                                        : ClickSource::Button::other;
        if (button == ClickSource::Button::other)
            return; // the wheel and extra buttons
        m_lastButton.store(now);
        auto at = m_x11->pointer();
        if (at)
            m_clicks.deliver({button, at->x, at->y, uptimeOfMilliseconds32(press->time, now)});
        return;
    }
    case XCB_INPUT_RAW_KEY_PRESS:
    case XCB_INPUT_RAW_KEY_RELEASE: {
        auto* key = static_cast<const xcb_input_raw_key_press_event_t*>(raw);
        xkb_keycode_t code = key->detail;
        if (generic->event_type == XCB_INPUT_RAW_KEY_RELEASE) {
            xkb_state_update_key(m_xkb.state, code, XKB_KEY_UP);
            return;
        }
        m_lastKeyDown.store(now);
        auto pressed = xkbKeyPress(m_xkb.state, code, uptimeOfMilliseconds32(key->time, now));
        xkb_state_update_key(m_xkb.state, code, XKB_KEY_DOWN);
        if (pressed)
            m_keys.deliver(*pressed);
        return;
    }
    default:
        return;
    }
}

} // namespace plim
