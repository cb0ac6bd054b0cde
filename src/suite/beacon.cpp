#include "suite/beacon.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>

namespace plim {

namespace {

// A decimal or exponent number filling the whole text (an optional leading "+"),
// independent of the locale.
std::optional<double> parseNumber(std::string_view text)
{
    if (text.starts_with('+'))
        text.remove_prefix(1);
    if (text.empty() || text.front() == '+')
        return std::nullopt;
    double value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::optional<double> rollingAnchor(std::string_view payload)
{
    constexpr std::string_view prefix = "rolling ";
    if (!payload.starts_with(prefix))
        return std::nullopt;
    auto n = parseNumber(payload.substr(prefix.size()));
    if (!n || !std::isfinite(*n))
        return std::nullopt;
    return n;
}

} // namespace

std::string_view appSlug(SuiteApp app)
{
    switch (app) {
    case SuiteApp::plim: return "plim";
    case SuiteApp::tovan: return "tovan";
    case SuiteApp::sorvel: return "sorvel";
    }
    return "plim";
}

std::optional<SuiteApp> suiteAppFromSlug(std::string_view slug)
{
    for (SuiteApp app : allSuiteApps())
        if (appSlug(app) == slug)
            return app;
    return std::nullopt;
}

std::vector<SuiteApp> allSuiteApps() { return {SuiteApp::plim, SuiteApp::tovan, SuiteApp::sorvel}; }

std::string beaconName(SuiteApp app) { return "app." + std::string(appSlug(app)) + ".recording"; }
std::string controlName(SuiteApp app) { return "app." + std::string(appSlug(app)) + ".control"; }
std::string filedName(SuiteApp app) { return "app." + std::string(appSlug(app)) + ".filed"; }

std::string_view controlVerbText(ControlVerb verb)
{
    switch (verb) {
    case ControlVerb::resume: return "resume";
    case ControlVerb::mark: return "mark";
    case ControlVerb::record: return "record";
    case ControlVerb::stop: return "stop";
    }
    return "stop";
}

std::optional<ControlVerb> controlVerbFromText(std::string_view text)
{
    for (ControlVerb verb : {ControlVerb::resume, ControlVerb::mark, ControlVerb::record, ControlVerb::stop})
        if (controlVerbText(verb) == text)
            return verb;
    return std::nullopt;
}

std::vector<ControlVerb> supportedControlVerbs(SuiteApp)
{
    return {ControlVerb::resume, ControlVerb::mark, ControlVerb::record, ControlVerb::stop};
}

int64_t wholeSeconds(double seconds)
{
    if (std::isnan(seconds))
        return 0;
    // 2^63 is exactly representable; anything at or beyond it saturates.
    constexpr double limit = 9223372036854775808.0;
    if (seconds >= limit)
        return std::numeric_limits<int64_t>::max();
    if (seconds < -limit)
        return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(std::trunc(seconds));
}

std::string BeaconState::wirePayload() const
{
    switch (kind) {
    case Kind::rolling: return "rolling " + std::to_string(wholeSeconds(anchor));
    case Kind::paused: return "paused " + std::to_string(wholeSeconds(elapsed));
    case Kind::idle: return "idle";
    }
    return "idle";
}

std::optional<BeaconState> BeaconState::parse(std::string_view payload)
{
    size_t space = payload.find(' ');
    std::string_view word = payload.substr(0, space);
    std::optional<std::string_view> number;
    if (space != std::string_view::npos)
        number = payload.substr(space + 1);

    if (word == "idle" && !number)
        return idle();
    if (!number)
        return std::nullopt;
    auto n = parseNumber(*number);
    if (!n || !std::isfinite(*n))
        return std::nullopt;
    constexpr double bound = 1'000'000'000'000.0;
    if (word == "rolling" && *n >= 0 && *n <= bound)
        return rolling(*n);
    if (word == "paused" && std::fabs(*n) <= bound)
        return paused(*n);
    return std::nullopt;
}

bool shouldPost(std::string_view next, const std::optional<std::string>& last)
{
    if (!last)
        return true;
    if (next == *last)
        return false;
    if (next.starts_with("rolling ") && last->starts_with("rolling ")) {
        auto a = rollingAnchor(next);
        auto b = rollingAnchor(*last);
        if (!a || !b)
            return true;
        return std::fabs(*a - *b) > 1.0;
    }
    return true;
}

BeaconBroadcaster::BeaconBroadcaster(SuiteApp app, Post post) : m_app(app), m_post(std::move(post)) {}

Result<bool> BeaconBroadcaster::broadcast(const BeaconState& state)
{
    std::string payload = state.wirePayload();
    std::lock_guard guard(m_lock);
    if (!shouldPost(payload, m_lastPayload))
        return false;
    if (auto status = m_post(m_app, payload); !status)
        return std::unexpected(status.error());
    m_lastPayload = std::move(payload);
    return true;
}

std::optional<std::string> BeaconBroadcaster::lastPayload() const
{
    std::lock_guard guard(m_lock);
    return m_lastPayload;
}

BeaconLivenessWatchdog::BeaconLivenessWatchdog(SuiteApp app, double interval, std::function<bool()> isRunning,
    std::function<void()> onSenderGone, const Clock& clock)
    : m_app(app)
    , m_interval(interval > 0 ? interval : 1.0)
    , m_isRunning(std::move(isRunning))
    , m_onSenderGone(std::move(onSenderGone))
    , m_clock(clock)
{
    m_lastCheck = m_clock.uptime();
}

BeaconLivenessWatchdog::~BeaconLivenessWatchdog()
{
    stop();
    if (m_thread.joinable())
        m_thread.detach(); // only when destroyed from its own callback
}

void BeaconLivenessWatchdog::start()
{
    std::unique_lock guard(m_lock);
    if (m_running)
        return;
    if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id()) {
        guard.unlock();
        m_thread.join();
        guard.lock();
    } else if (m_thread.joinable()) {
        m_thread.detach();
    }
    m_running = true;
    m_gone = false;
    m_lastCheck = m_clock.uptime();
    m_thread = std::thread([this] { run(); });
}

void BeaconLivenessWatchdog::stop()
{
    std::unique_lock guard(m_lock);
    m_running = false;
    m_wake.notify_all();
    if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id()) {
        std::thread thread = std::move(m_thread);
        guard.unlock();
        thread.join();
    }
}

void BeaconLivenessWatchdog::run()
{
    // Real time between looks at the clock: short enough that a clock moved by hand is
    // noticed soon, long enough to cost nothing.
    const auto step = std::chrono::duration<double>(std::clamp(m_interval / 4, 0.005, 0.1));
    for (;;) {
        {
            std::unique_lock guard(m_lock);
            m_wake.wait_for(guard, step, [this] { return !m_running; });
            if (!m_running)
                return;
        }
        tick();
    }
}

void BeaconLivenessWatchdog::tick()
{
    {
        std::lock_guard guard(m_lock);
        if (m_gone)
            return;
        double now = m_clock.uptime();
        if (now - m_lastCheck < m_interval)
            return;
        m_lastCheck = now;
    }
    checkNow();
}

void BeaconLivenessWatchdog::checkNow()
{
    std::lock_guard check(m_checkLock);
    {
        std::lock_guard guard(m_lock);
        if (m_gone)
            return;
    }
    if (m_isRunning())
        return;
    {
        std::lock_guard guard(m_lock);
        m_gone = true;
        m_running = false;
        m_wake.notify_all();
    }
    m_onSenderGone();
}

bool BeaconLivenessWatchdog::isActive() const
{
    std::lock_guard guard(m_lock);
    return m_running;
}

bool BeaconLivenessWatchdog::senderGone() const
{
    std::lock_guard guard(m_lock);
    return m_gone;
}

} // namespace plim
