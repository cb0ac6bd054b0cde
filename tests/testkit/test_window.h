#pragma once
// A plain X window for capture tests: filled with one colour, turning red when
// clicked, or showing fresh noise many times a second. Runs its own event thread.

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

struct xcb_connection_t;

namespace plim::testkit {

class TestWindow {
public:
    // `colour` is 0xRRGGBB.
    TestWindow(const std::string& display, int x, int y, int width, int height, uint32_t colour);
    ~TestWindow();
    bool isOpen() const { return m_window != 0; }
    uint32_t id() const { return m_window; }

    void fill(uint32_t colour);
    // Noise over the whole window every `intervalMs` while on.
    void setNoise(bool on) { m_noise = on; }
    void close();

    // The last click: its X server stamp and the uptime, in milliseconds, at which its fill
    // had reached the server. Xvfb stamps events on the monotonic clock, so the difference is
    // how long the window took to show the click.
    struct ClickShown {
        uint32_t pressedMS = 0;
        double shownMS = 0;
    };
    std::optional<ClickShown> lastClick() const;

private:
    void run(std::stop_token stop);
    xcb_connection_t* m_c = nullptr;
    uint32_t m_window = 0;
    uint32_t m_gc = 0;
    int m_width, m_height;
    std::atomic<bool> m_noise{false};
    mutable std::mutex m_draw;
    std::optional<ClickShown> m_lastClick;
    std::jthread m_thread;
};

} // namespace plim::testkit
