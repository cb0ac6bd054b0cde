#include "testkit/test_window.h"

#include "base/clock.h"

#include <xcb/xcb.h>

#include <poll.h>

#include <cstdlib>
#include <random>
#include <vector>

namespace plim::testkit {

TestWindow::TestWindow(const std::string& display, int x, int y, int width, int height, uint32_t colour)
    : m_width(width), m_height(height)
{
    m_c = xcb_connect(display.c_str(), nullptr);
    if (xcb_connection_has_error(m_c))
        return;
    xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(m_c)).data;
    m_window = xcb_generate_id(m_c);
    uint32_t values[] = {colour, 1, XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_EXPOSURE};
    xcb_create_window(m_c, XCB_COPY_FROM_PARENT, m_window, screen->root, int16_t(x), int16_t(y), uint16_t(width),
        uint16_t(height), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
        XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    m_gc = xcb_generate_id(m_c);
    xcb_create_gc(m_c, m_gc, m_window, XCB_GC_FOREGROUND, &colour);
    xcb_map_window(m_c, m_window);
    xcb_flush(m_c);
    free(xcb_get_input_focus_reply(m_c, xcb_get_input_focus(m_c), nullptr)); // a round trip: mapped
    m_thread = std::jthread([this](std::stop_token stop) { run(stop); });
}

TestWindow::~TestWindow()
{
    m_thread = std::jthread(); // stops and joins the event thread
    if (m_c)
        xcb_disconnect(m_c);
}

void TestWindow::close()
{
    std::lock_guard lock(m_draw);
    if (!m_window)
        return;
    xcb_destroy_window(m_c, m_window);
    xcb_flush(m_c);
    m_window = 0;
}

void TestWindow::fill(uint32_t colour)
{
    std::lock_guard lock(m_draw);
    if (!m_window)
        return;
    xcb_change_gc(m_c, m_gc, XCB_GC_FOREGROUND, &colour);
    xcb_rectangle_t all{0, 0, uint16_t(m_width), uint16_t(m_height)};
    xcb_poly_fill_rectangle(m_c, m_window, m_gc, 1, &all);
    // A round trip, so the picture has changed when this returns.
    free(xcb_get_input_focus_reply(m_c, xcb_get_input_focus(m_c), nullptr));
}

std::optional<TestWindow::ClickShown> TestWindow::lastClick() const
{
    std::lock_guard lock(m_draw);
    return m_lastClick;
}

void TestWindow::run(std::stop_token stop)
{
    std::mt19937 random(7);
    std::vector<uint32_t> pixels(size_t(m_width) * 64);
    pollfd fd{xcb_get_file_descriptor(m_c), POLLIN, 0};
    while (!stop.stop_requested()) {
        while (xcb_generic_event_t* event = xcb_poll_for_event(m_c)) {
            if ((event->response_type & 0x7f) == XCB_BUTTON_PRESS) {
                fill(0xff0000); // a click turns it red
                std::lock_guard lock(m_draw);
                m_lastClick
                    = ClickShown{reinterpret_cast<xcb_button_press_event_t*>(event)->time, systemUptime() * 1000};
            }
            free(event);
        }
        if (m_noise.load()) {
            std::lock_guard lock(m_draw);
            for (int band = 0; m_window && band < m_height; band += 64) {
                int rows = std::min(64, m_height - band);
                for (auto& p : pixels)
                    p = random();
                xcb_put_image(m_c, XCB_IMAGE_FORMAT_Z_PIXMAP, m_window, m_gc, uint16_t(m_width), uint16_t(rows), 0,
                    int16_t(band), 0, 24, uint32_t(size_t(m_width) * size_t(rows) * 4),
                    reinterpret_cast<const uint8_t*>(pixels.data()));
            }
            xcb_flush(m_c);
        }
        ::poll(&fd, 1, m_noise.load() ? 15 : 5);
    }
}

} // namespace plim::testkit
