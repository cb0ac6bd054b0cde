#include "base/clock.h"

#include <ctime>

namespace plim {

double systemUptime()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double UptimeClock::uptime() const { return systemUptime(); }

const UptimeClock& UptimeClock::shared()
{
    static UptimeClock clock;
    return clock;
}

} // namespace plim
