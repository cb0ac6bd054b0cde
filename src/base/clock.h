#pragma once
// The recording clock: seconds of system uptime (CLOCK_MONOTONIC), never wall time.
// Recorders and watchdogs take a Clock so tests can drive time by hand.

#include <atomic>
#include <chrono>
#include <cstdint>

namespace plim {

class Clock {
public:
    virtual ~Clock() = default;
    // Seconds since boot. Thread-safe; microsecond resolution or better.
    virtual double uptime() const = 0;
};

class UptimeClock final : public Clock {
public:
    double uptime() const override;
    static const UptimeClock& shared();
};

// A clock that moves only when told to. Thread-safe.
class ManualClock final : public Clock {
public:
    explicit ManualClock(double start = 1000.0) : m_now(start) {}
    double uptime() const override { return m_now.load(); }
    void set(double seconds) { m_now.store(seconds); }
    void advance(double seconds) { m_now.fetch_add(seconds); }

private:
    std::atomic<double> m_now;
};

double systemUptime();

// When an input event happened, for a recorder whose clock reads `now`: the source's own
// stamp `at` when it has one within the last second, else `now`.
double eventInstant(double at, double now);

// A 32-bit millisecond stamp of the monotonic clock (how X servers stamp input events)
// placed on the uptime timeline read at `now`, wrapping included; NaN when the stamp is
// more than a second old or in the future, as from a server on another clock.
double uptimeOfMilliseconds32(uint32_t stamp, double now);

} // namespace plim
