#include "base/clock.h"

#include <ctime>
#include <limits>

namespace plim {

double systemUptime()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double eventInstant(double at, double now)
{
    return at >= 0 && at <= now && at >= now - 1.0 ? at : now;
}

double uptimeOfMilliseconds32(uint32_t stamp, double now)
{
    if (!(now >= 0))
        return std::numeric_limits<double>::quiet_NaN();
    auto nowMS = static_cast<uint64_t>(now * 1000.0);
    uint32_t age = static_cast<uint32_t>(nowMS) - stamp; // modulo 2^32, as the server wraps
    if (age > 1000 || age > nowMS)
        return std::numeric_limits<double>::quiet_NaN();
    return static_cast<double>(nowMS - age) / 1000.0;
}

double UptimeClock::uptime() const { return systemUptime(); }

const UptimeClock& UptimeClock::shared()
{
    static UptimeClock clock;
    return clock;
}

} // namespace plim
