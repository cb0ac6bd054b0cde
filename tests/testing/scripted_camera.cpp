#include "testing/scripted_camera.h"

#include "base/clock.h"

#include <chrono>
#include <cstring>

namespace plim {

Status ScriptedCameraSource::start(FrameHandler onFrame)
{
    m_thread = std::jthread([this, onFrame = std::move(onFrame)](std::stop_token stop) {
        double next = systemUptime();
        uint8_t level = 0;
        while (!stop.stop_requested()) {
            Image image = Image::allocate(m_width, m_height);
            for (int y = 0; y < m_height; ++y)
                std::memset(image.row(y), level, size_t(m_width) * 4);
            level = uint8_t(level + 8);
            const double taken = systemUptime();
            if (m_bunched) {
                Image copy = Image::allocate(m_width, m_height);
                std::memcpy(copy.row(0), image.row(0), size_t(m_width) * 4 * size_t(m_height));
                onFrame(CapturedFrame{std::move(copy), taken});
                m_delivered.fetch_add(1);
                onFrame(CapturedFrame{std::move(image), taken + 1e-4});
            } else {
                onFrame(CapturedFrame{std::move(image), taken});
            }
            m_delivered.fetch_add(1);
            next += 1.0 / m_fps;
            double wait = next - systemUptime();
            if (wait > 0)
                std::this_thread::sleep_for(std::chrono::duration<double>(wait));
        }
    });
    return {};
}

void ScriptedCameraSource::stop()
{
    if (m_thread.joinable()) {
        m_thread.request_stop();
        m_thread.join();
    }
}

} // namespace plim
