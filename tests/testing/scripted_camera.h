#pragma once
// A camera for tests, where none exists: solid pictures whose level steps every frame.

#include "capture/camera_source.h"

#include <atomic>
#include <thread>

namespace plim {

// Frames at the given size and rate on its own thread. A bunched camera follows each frame
// with another a tenth of a millisecond later, as a real one does after a stall.
class ScriptedCameraSource final : public CameraSource {
public:
    ScriptedCameraSource(int width, int height, double fps, bool bunched = false)
        : m_width(width), m_height(height), m_fps(fps), m_bunched(bunched) {}
    ~ScriptedCameraSource() override { stop(); }
    std::string deviceName() const override { return "Scripted camera"; }
    int width() const override { return m_width; }
    int height() const override { return m_height; }
    double framesPerSecond() const override { return m_fps; }
    Status start(FrameHandler onFrame) override;
    void stop() override;
    int64_t delivered() const { return m_delivered.load(); }

private:
    int m_width, m_height;
    double m_fps;
    bool m_bunched;
    std::jthread m_thread;
    std::atomic<int64_t> m_delivered{0};
};

} // namespace plim
