#pragma once
// The recording clock: seconds of system uptime (CLOCK_MONOTONIC), never wall time.
// Recorders and watchdogs take a Clock so tests can drive time by hand.

#include <atomic>
#include <chrono>

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
    void advance(double seconds) { m_now.store(m_now.load() + seconds); }

private:
    std::atomic<double> m_now;
};

double systemUptime();

} // namespace plim
