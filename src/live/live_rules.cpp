#include "live/live_rules.h"

#include <algorithm>
#include <cmath>

namespace plim {

int liveRate(LiveQuality quality) { return quality == LiveQuality::full ? 60 : 30; }

DegradeLadder::Step DegradeLadder::advance(int overruns, double dt)
{
    if (overruns >= stepDownOverruns) {
        cleanFor = 0;
        switch (quality) {
        case LiveQuality::full:
            quality = LiveQuality::halfRate;
            return {quality, "The GPU is behind, so the stream stepped to 30fps. It steps back up on its own once things calm down."};
        case LiveQuality::halfRate:
            quality = LiveQuality::minimalEffects;
            return {quality, extras ? "Still behind at 30fps, so " + extras->words + " " + extras->verb
                        + " off for now. The picture itself is untouched."
                                    : "Still behind at 30fps. The picture itself is untouched."};
        case LiveQuality::minimalEffects:
            return {};
        }
    }
    if (overruns > 0) {
        cleanFor = 0;
        return {};
    }
    if (quality == LiveQuality::full)
        return {};
    cleanFor += std::isfinite(dt) && dt > 0 ? dt : 0;
    if (cleanFor < cleanToStepUp)
        return {};
    cleanFor = 0;
    if (quality == LiveQuality::halfRate) {
        quality = LiveQuality::full;
        return {quality, "Back to the full 60fps."};
    }
    quality = LiveQuality::halfRate;
    return {quality, extras ? "The GPU caught up: " + extras->words + " " + extras->verb + " back." : "The GPU caught up."};
}

double IdleFade::advance(double x, double y, double dt)
{
    const bool known = lastX && lastY && std::isfinite(*lastX) && std::isfinite(*lastY);
    const bool moved = known && std::hypot(x - *lastX, y - *lastY) > moveTolerance;
    const bool fresh = !known || !std::isfinite(dt);
    lastX = x;
    lastY = y;
    if (fresh || moved) {
        stillFor = 0;
        return 1;
    }
    stillFor += std::max(dt, 0.0);
    if (stillFor <= fadeStart)
        return 1;
    return 1 - std::min((stillFor - fadeStart) / fadeLength, 1.0);
}

void LiveInputBus::postClick(double unitX, double unitY)
{
    if (!std::isfinite(unitX) || !std::isfinite(unitY))
        return;
    std::lock_guard lock(m_lock);
    if (m_clicks.size() >= clickCap)
        return;
    m_clicks.push_back({unitX, unitY});
}

void LiveInputBus::postPointer(std::optional<std::pair<double, double>> unit)
{
    if (unit && (!std::isfinite(unit->first) || !std::isfinite(unit->second)))
        unit.reset();
    std::lock_guard lock(m_lock);
    m_pointer = unit;
}

void LiveInputBus::countManualToggle()
{
    std::lock_guard lock(m_lock);
    ++m_manualToggles;
}

std::optional<std::pair<double, double>> LiveInputBus::pointer() const
{
    std::lock_guard lock(m_lock);
    return m_pointer;
}

std::vector<LiveInputBus::Click> LiveInputBus::takeClicks()
{
    std::lock_guard lock(m_lock);
    return std::exchange(m_clicks, {});
}

size_t LiveInputBus::waitingClicks() const
{
    std::lock_guard lock(m_lock);
    return m_clicks.size();
}

int LiveInputBus::manualToggles() const
{
    std::lock_guard lock(m_lock);
    return m_manualToggles;
}

LiveSwitches::State LiveSwitches::state() const
{
    std::lock_guard lock(m_lock);
    return m_state;
}

void LiveSwitches::set(State state)
{
    std::lock_guard lock(m_lock);
    m_state = state;
}

void LiveSwitches::setMotionEffects(bool on)
{
    std::lock_guard lock(m_lock);
    m_state.motionEffects = on;
}

std::string healthSentence(const LiveSinkHealth& health)
{
    struct Words {
        std::string operator()(const LiveSinkHealth::Idle&) const { return "Not running."; }
        std::string operator()(const LiveSinkHealth::Opening&) const { return "Not running."; }
        std::string operator()(const LiveSinkHealth::Running& r) const
        {
            return r.dropped == 0 ? "Live." : std::to_string(r.dropped) + " dropped.";
        }
        std::string operator()(const LiveSinkHealth::Degraded& d) const { return d.sentence; }
        std::string operator()(const LiveSinkHealth::Failed& f) const { return f.sentence; }
    };
    return std::visit(Words{}, health.state);
}

std::string healthLine(const std::vector<std::pair<std::string, LiveSinkHealth>>& sinks)
{
    std::string line;
    for (const auto& [name, health] : sinks) {
        if (!line.empty())
            line += ' ';
        line += name + ": " + healthSentence(health);
    }
    return line;
}

} // namespace plim
