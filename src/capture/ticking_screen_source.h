#pragma once
// What every screen source shares (screen_source.h has the contract): the capture thread
// "plim.capture.video", the handlers, the counts, and moving on to the next tick. A backend
// writes run(); its destructor calls stop() before its own members go.

#include "capture/screen_source.h"

#include <atomic>
#include <mutex>
#include <stop_token>
#include <thread>

namespace plim {

// Frames' stamps stay at least this far apart, more than the movie's tick (1/600 s), so that
// the writer keeps each frame rather than taking two for one instant.
constexpr double minimumStampGap = 2e-3;

class TickingScreenSource : public ScreenSource {
public:
    Status start(int framesPerSecond, FrameHandler onFrame, EndHandler onEnd) final;
    void stop() final;
    int64_t deliveredFrames() const final { return m_delivered.load(); }
    int64_t droppedFrames() const final { return m_dropped.load(); }

protected:
    // The capture loop, on the source's thread, until `stop` is asked for or it returns.
    virtual void run(std::stop_token stop) = 0;
    // Hands `frame` on and moves `next` (the uptime of the tick it answers) to the next tick
    // still worth taking, counting the ones passed meanwhile.
    void deliver(CapturedFrame&& frame, double& next);
    // A tick with no picture to hand on (the desktop has sent none yet): counted as dropped.
    void passEmpty(double& next);
    // Ends the recording with `error`'s sentence; run() returns after it.
    void end(const Error& error);
    double interval() const { return m_interval; }

private:
    void moveOn(double& next);

    std::mutex m_life;
    std::jthread m_thread;
    double m_interval = 1.0 / 60;
    FrameHandler m_onFrame;
    EndHandler m_onEnd;
    std::atomic<int64_t> m_delivered{0};
    std::atomic<int64_t> m_dropped{0};
};

} // namespace plim
