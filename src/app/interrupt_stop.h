#pragma once
// Ctrl-C and SIGTERM as a stop request for a long command (share, stage). While an
// InterruptStop lives, the first of those signals requests stop on its token instead of
// killing the process, so the engine can remove its partial file and say so; the handlers
// that were there before come back when it goes. One at a time per process.

#include "base/error.h"

#include <csignal>
#include <functional>
#include <thread>

namespace plim {

class InterruptStop {
public:
    // `onStop` (optional) runs on the watcher thread when a signal came, for engines that
    // take a stop() call rather than a token.
    explicit InterruptStop(std::function<void()> onStop = {});
    ~InterruptStop();
    InterruptStop(const InterruptStop&) = delete;
    InterruptStop& operator=(const InterruptStop&) = delete;

    StopToken token() const { return m_source.get_token(); }

private:
    std::stop_source m_source;
    std::function<void()> m_onStop;
    struct sigaction m_previousInt {};
    struct sigaction m_previousTerm {};
    int m_wake[2] = {-1, -1}; // the handler writes to [1]; the watcher sleeps reading [0]
    std::thread m_watcher;
};

} // namespace plim
