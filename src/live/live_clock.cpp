#include "live/live_clock.h"

#include "base/clock.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <pthread.h>

namespace plim {

int64_t LiveClock::missedTicks(double due, double end, double interval)
{
    if (!(interval > 0) || !(end - due >= interval))
        return 0;
    return static_cast<int64_t>(std::floor((end - due) / interval));
}

Status HostLiveClock::start(double interval, Handler handler, std::optional<double> firstDue)
{
    if (!(interval > 0) || !std::isfinite(interval))
        return fail("The live clock cannot tick every " + std::to_string(interval) + " seconds.");
    stop();
    {
        std::lock_guard lock(m_lock);
        m_stopping = false;
    }
    const double due = std::max(firstDue.value_or(now()), now());
    m_thread = std::thread([this, interval, handler = std::move(handler), due] { run(interval, handler, due); });
    return {};
}

void HostLiveClock::stop()
{
    if (!m_thread.joinable())
        return;
    {
        std::lock_guard lock(m_lock);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

double HostLiveClock::now() const { return systemUptime(); }

void HostLiveClock::run(double interval, Handler handler, double due)
{
    pthread_setname_np(pthread_self(), "plim.live.render");
    int64_t overran = 0;
    for (;;) {
        {
            std::unique_lock lock(m_lock);
            // Sleep to the deadline in short waits so a stop is seen at once.
            while (!m_stopping) {
                double left = due - now();
                if (left <= 0)
                    break;
                m_wake.wait_for(lock, std::chrono::duration<double>(std::min(left, 0.05)));
            }
            if (m_stopping)
                return;
        }
        handler({due, overran});
        const double end = now();
        overran = missedTicks(due, end, interval);
        due += static_cast<double>(overran + 1) * interval;
    }
}

Status SteppedLiveClock::start(double interval, Handler handler, std::optional<double> firstDue)
{
    if (!(interval > 0) || !std::isfinite(interval))
        return fail("The live clock cannot tick every " + std::to_string(interval) + " seconds.");
    m_interval = interval;
    m_handler = std::move(handler);
    m_next = std::max(firstDue.value_or(now()), now());
    m_pendingOverran = 0;
    m_running = true;
    ++m_generation;
    return {};
}

void SteppedLiveClock::stop()
{
    m_running = false;
    m_handler = nullptr;
}

bool SteppedLiveClock::step()
{
    if (!m_running)
        return false;
    if (now() < m_next)
        m_now.store(m_next);
    const double due = m_next;
    ++m_delivered;
    const int64_t generation = m_generation;
    Handler handler = m_handler; // the handler may restart the clock
    handler({due, std::exchange(m_pendingOverran, 0)});
    if (!m_running || m_generation != generation)
        return true;
    m_pendingOverran = missedTicks(due, now(), m_interval);
    m_next = due + static_cast<double>(m_pendingOverran + 1) * m_interval;
    return true;
}

} // namespace plim
