#pragma once
// What paces a live run: ticks every `interval` seconds on the clock's own thread (the
// render thread). A tick's work that runs past the next tick's time makes the clock skip
// the ticks it missed and report how many with the next tick it delivers: that is the
// render-overrun measurement.
//
// Contract: start() begins ticking at `firstDue` on the clock, or at once when that has
// passed or is not given; the handler runs
// on the clock's thread, one tick at a time. stop() may be called from any thread but the
// clock's own; when it returns no handler runs and none will. A stopped clock can be
// started again with another interval.
//
// Backends: HostLiveClock (its own thread "plim.live.render", deadlines on CLOCK_MONOTONIC)
// and SteppedLiveClock (a test's thread delivers each tick; time moves only when told).

#include "base/error.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace plim {

struct LiveTick {
    double time = 0;      // when this tick was due, seconds on the clock
    int64_t overran = 0;  // ticks that came while the previous tick's work was still running
};

class LiveClock {
public:
    using Handler = std::function<void(const LiveTick&)>;
    virtual ~LiveClock() = default;
    virtual Status start(double interval, Handler handler, std::optional<double> firstDue = std::nullopt) = 0;
    virtual void stop() = 0;
    // Seconds on this clock. Thread-safe.
    virtual double now() const = 0;

    // Ticks lost when the work of the tick due at `due` ended at `end`: every later tick
    // time up to `end` (one `interval` apart).
    static int64_t missedTicks(double due, double end, double interval);
};

class HostLiveClock final : public LiveClock {
public:
    ~HostLiveClock() override { stop(); }
    Status start(double interval, Handler handler, std::optional<double> firstDue = std::nullopt) override;
    void stop() override;
    double now() const override;

private:
    void run(double interval, Handler handler, double due);

    std::thread m_thread;
    std::mutex m_lock;
    std::condition_variable m_wake;
    bool m_stopping = false;
};

class SteppedLiveClock final : public LiveClock {
public:
    explicit SteppedLiveClock(double start = 0) : m_now(start) {}
    Status start(double interval, Handler handler, std::optional<double> firstDue = std::nullopt) override;
    void stop() override;
    double now() const override { return m_now.load(); }

    // Moves time to the next tick (if it is not already there) and delivers it on the
    // caller's thread. False when the clock is stopped.
    bool step();
    // Time passes while a tick's work runs (a scripted slow renderer calls this).
    void spend(double seconds) { m_now.fetch_add(seconds); }

    double interval() const { return m_interval; }
    int64_t ticksDelivered() const { return m_delivered; }

private:
    std::atomic<double> m_now;
    Handler m_handler;
    double m_interval = 0;
    double m_next = 0;
    int64_t m_pendingOverran = 0;
    int64_t m_delivered = 0;
    int64_t m_generation = 0;
    bool m_running = false;
};

} // namespace plim
