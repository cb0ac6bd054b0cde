#include "app/interrupt_stop.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace plim {

namespace {

// Where the handler reports a signal: a pipe's write end, or -1.
std::atomic<int> wakeFd{-1};

constexpr char signalled = 's', quit = 'q';

extern "C" void onInterrupt(int)
{
    const int saved = errno;
    if (int fd = wakeFd.load(); fd >= 0)
        (void)!::write(fd, &signalled, 1);
    errno = saved;
}

} // namespace

InterruptStop::InterruptStop(std::function<void()> onStop)
    : m_onStop(std::move(onStop))
{
    if (::pipe2(m_wake, O_CLOEXEC) != 0)
        return; // no pipe, no watcher: the signals keep their old meaning
    wakeFd = m_wake[1];
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &m_previousInt);
    sigaction(SIGTERM, &action, &m_previousTerm);
    // A handler may only write a byte; the watcher, asleep until one comes, turns it into
    // the stop request.
    m_watcher = std::thread([this] {
        for (;;) {
            char c = 0;
            ssize_t n = ::read(m_wake[0], &c, 1);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0 || c == quit)
                return;
            if (!m_source.stop_requested()) {
                m_source.request_stop();
                if (m_onStop)
                    m_onStop();
            }
        }
    });
}

InterruptStop::~InterruptStop()
{
    if (!m_watcher.joinable())
        return;
    sigaction(SIGINT, &m_previousInt, nullptr);
    sigaction(SIGTERM, &m_previousTerm, nullptr);
    wakeFd = -1;
    while (::write(m_wake[1], &quit, 1) < 0 && errno == EINTR) {
    }
    m_watcher.join();
    ::close(m_wake[0]);
    ::close(m_wake[1]);
}

} // namespace plim
