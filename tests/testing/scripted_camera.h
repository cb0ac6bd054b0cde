#pragma once
// A camera for tests, where none exists: solid pictures whose level steps every frame.

#include "base/clock.h"
#include "capture/camera_source.h"

#include <chrono>
#include <cstring>
#include <thread>

namespace plim {

// Frames at the given size and rate on its own thread. A bunched camera follows each frame
// with another a tenth of a millisecond later, as a real one does after a stall.
class ScriptedCameraSource final : public CameraSource {
public:
    ScriptedCameraSource(int width, int height, double fps, bool bunched = false)
        : m_width(width), m_height(height), m_fps(fps), m_bunched(bunched)
    {
    }
    std::string deviceName() const override { return "Scripted camera"; }
    int width() const override { return m_width; }
    int height() const override { return m_height; }
    double framesPerSecond() const override { return m_fps; }
    Status start(FrameHandler onFrame) override
    {
        m_thread = std::jthread([this, onFrame = std::move(onFrame)](std::stop_token stop) {
            double next = systemUptime();
            uint8_t level = 0;
            auto picture = [&] {
                Image image = Image::allocate(m_width, m_height);
                for (int y = 0; y < m_height; ++y)
                    std::memset(image.row(y), level, size_t(m_width) * 4);
                return image;
            };
            while (!stop.stop_requested()) {
                const double taken = systemUptime();
                if (m_bunched)
                    onFrame(CapturedFrame{picture(), taken});
                onFrame(CapturedFrame{picture(), m_bunched ? taken + 1e-4 : taken});
                level = uint8_t(level + 8);
                next += 1.0 / m_fps;
                std::this_thread::sleep_for(std::chrono::duration<double>(next - systemUptime()));
            }
        });
        return {};
    }
    void stop() override { m_thread = std::jthread(); } // stops and joins the running one

private:
    int m_width, m_height;
    double m_fps;
    bool m_bunched;
    std::jthread m_thread;
};

} // namespace plim
