#include "capture/ticking_screen_source.h"

#include "base/clock.h"

#include <pthread.h>

#include <algorithm>

namespace plim {

Status TickingScreenSource::start(int framesPerSecond, FrameHandler onFrame, EndHandler onEnd)
{
    std::lock_guard lock(m_life);
    if (m_thread.joinable())
        return fail("The screen capture was started twice.");
    m_interval = 1.0 / std::max(1, framesPerSecond);
    m_onFrame = std::move(onFrame);
    m_onEnd = std::move(onEnd);
    m_thread = std::jthread([this](std::stop_token stop) {
        pthread_setname_np(pthread_self(), "plim.capture.vi");
        run(stop);
    });
    return {};
}

void TickingScreenSource::stop()
{
    std::lock_guard lock(m_life);
    if (m_thread.joinable()) {
        m_thread.request_stop();
        m_thread.join();
    }
}

void TickingScreenSource::deliver(CapturedFrame&& frame, double& next)
{
    m_onFrame(std::move(frame));
    m_delivered.fetch_add(1);
    moveOn(next);
}

void TickingScreenSource::passEmpty(double& next)
{
    m_dropped.fetch_add(1);
    moveOn(next);
}

void TickingScreenSource::moveOn(double& next)
{
    next += m_interval;
    if (int64_t missed = ticksLost(systemUptime(), next, m_interval)) {
        m_dropped.fetch_add(missed);
        next += double(missed) * m_interval;
    }
}

void TickingScreenSource::end(const Error& error)
{
    if (m_onEnd)
        m_onEnd(error);
}

} // namespace plim
