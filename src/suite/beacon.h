#pragma once
// The beacon: each suite app tells its siblings whether it is recording, as a short
// text on a broadcast message; a watchdog notices a sender that went away without
// saying "idle".

#include "base/clock.h"
#include "base/error.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace plim {

enum class SuiteApp { plim, tovan, sorvel };

std::string_view appSlug(SuiteApp app);
std::optional<SuiteApp> suiteAppFromSlug(std::string_view slug);
std::vector<SuiteApp> allSuiteApps();

// "app.<slug>.recording", "app.<slug>.control", "app.<slug>.filed".
std::string beaconName(SuiteApp app);
std::string controlName(SuiteApp app);
std::string filedName(SuiteApp app);

// Verbs sent to an app on its control name.
enum class ControlVerb { resume, mark, record, stop };
std::string_view controlVerbText(ControlVerb verb);
std::optional<ControlVerb> controlVerbFromText(std::string_view text);
// The verbs the app acts on.
std::vector<ControlVerb> supportedControlVerbs(SuiteApp app);

// Truncates toward zero; saturates beyond the 64-bit range; not-a-number gives 0.
int64_t wholeSeconds(double seconds);

struct BeaconState {
    enum class Kind { rolling, paused, idle };
    Kind kind = Kind::idle;
    double anchor = 0;  // rolling: seconds since 1970-01-01 UTC from which elapsed time counts
    double elapsed = 0; // paused: seconds recorded so far

    bool operator==(const BeaconState&) const = default;

    static BeaconState rolling(double anchorSeconds) { return {Kind::rolling, anchorSeconds, 0}; }
    static BeaconState paused(double elapsedSeconds) { return {Kind::paused, 0, elapsedSeconds}; }
    static BeaconState idle() { return {}; }

    // "rolling <whole seconds>", "paused <whole seconds>" or "idle".
    std::string wirePayload() const;
    // Nothing when the text is not a beacon payload.
    static std::optional<BeaconState> parse(std::string_view payload);
};

// Whether `next` should go out after `last` was posted (nothing posted yet: always).
// A re-announced recording whose anchor moved by at most a second stays silent.
bool shouldPost(std::string_view next, const std::optional<std::string>& last);

// Posts an app's state through a given function, skipping repeats. Thread-safe: the
// decision and the post happen under one lock, so racing broadcasts post once.
class BeaconBroadcaster {
public:
    using Post = std::function<Status(SuiteApp, const std::string& payload)>;

    BeaconBroadcaster(SuiteApp app, Post post);

    // True when the state was posted, false when it was a repeat. A failed post is
    // returned and not remembered, so the next broadcast tries again.
    Result<bool> broadcast(const BeaconState& state);

    std::optional<std::string> lastPayload() const;
    SuiteApp app() const { return m_app; }

private:
    SuiteApp m_app;
    Post m_post;
    mutable std::mutex m_lock;
    std::optional<std::string> m_lastPayload;
};

// Watches that a sibling shown rolling or paused is still running. The check runs
// every `interval` seconds of the given clock; once the sender is gone the watchdog
// stops and calls `onSenderGone` exactly once.
//
// start() runs the checks on a thread of the watchdog's own; tick() and checkNow() run
// them on the caller's thread. isRunning and onSenderGone are called on whichever
// thread runs the check, never at the same time. onSenderGone may call stop().
class BeaconLivenessWatchdog {
public:
    BeaconLivenessWatchdog(SuiteApp app, double interval, std::function<bool()> isRunning,
        std::function<void()> onSenderGone, const Clock& clock = UptimeClock::shared());
    ~BeaconLivenessWatchdog();
    BeaconLivenessWatchdog(const BeaconLivenessWatchdog&) = delete;
    BeaconLivenessWatchdog& operator=(const BeaconLivenessWatchdog&) = delete;

    void start();
    void stop();
    // Runs the check when an interval has passed by the clock since the last one.
    void tick();
    // Runs the check at once (when not yet stopped by a gone sender).
    void checkNow();

    bool isActive() const;
    bool senderGone() const;
    SuiteApp app() const { return m_app; }

private:
    void run();

    SuiteApp m_app;
    double m_interval;
    std::function<bool()> m_isRunning;
    std::function<void()> m_onSenderGone;
    const Clock& m_clock;

    mutable std::mutex m_lock;
    std::mutex m_checkLock; // one check at a time
    std::condition_variable m_wake;
    bool m_running = false;   // the timer is scheduled
    bool m_gone = false;
    double m_lastCheck = 0;
    std::thread m_thread;
};

} // namespace plim
