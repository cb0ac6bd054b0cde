#include "app/interrupt_stop.h"

#include <chrono>

namespace plim {

namespace {

volatile std::sig_atomic_t interrupted = 0;

extern "C" void onInterrupt(int) { interrupted = 1; }

} // namespace

InterruptStop::InterruptStop(std::function<void()> onStop)
    : m_onStop(std::move(onStop))
{
    interrupted = 0;
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &m_previousInt);
    sigaction(SIGTERM, &action, &m_previousTerm);
    // A handler may only set a flag; the watcher turns it into the stop request.
    m_watcher = std::thread([this] {
        while (!m_done) {
            if (interrupted && !m_source.stop_requested()) {
                m_source.request_stop();
                if (m_onStop)
                    m_onStop();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
}

InterruptStop::~InterruptStop()
{
    m_done = true;
    m_watcher.join();
    sigaction(SIGINT, &m_previousInt, nullptr);
    sigaction(SIGTERM, &m_previousTerm, nullptr);
}

} // namespace plim
