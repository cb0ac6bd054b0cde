#include "live/live_moment_source.h"

#include "stage/recorded_moment_source.h"

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

constexpr double framingStiffness = 64; // 8 rad/s: settles in about 0.7 s
constexpr double framingDamping = 16;

bool finite(double v) { return std::isfinite(v); }

} // namespace

LiveMomentSource::Options LiveMomentSource::optionsFor(const StageSpec& look, bool glide)
{
    Options o;
    o.clickRings = look.clickStyle != ClickStyle::none;
    o.clickLife = RecordedMomentSource::clickLifeFor(look.clickStyle);
    o.hidesIdleCursor = look.cursorHideWhenIdle;
    o.glide = glide;
    return o;
}

LiveMomentSource::LiveMomentSource(Options options, std::shared_ptr<LiveSwitches> switches, std::shared_ptr<LiveInputBus> inputs)
    : m_options(options)
    , m_switches(switches ? std::move(switches) : std::make_shared<LiveSwitches>())
    , m_inputs(std::move(inputs))
{
}

void LiveMomentSource::Framing::advance(double toScale, double toX, double toY, double dt)
{
    if (!finite(dt) || dt <= 0)
        return;
    carry += std::min(dt, CursorSpring::longestAdvance);
    auto tick = [](double& p, double& v, double target) {
        v += (framingStiffness * (target - p) - framingDamping * v) * CursorSpring::step;
        p += v * CursorSpring::step;
    };
    while (carry >= CursorSpring::tickDue) {
        carry -= CursorSpring::step;
        tick(scale, vScale, toScale);
        tick(centerX, vX, toX);
        tick(centerY, vY, toY);
    }
}

ZoomState LiveMomentSource::framingTarget(double t) const
{
    if (!m_lastZoomClick || t - m_lastZoomClick->t > m_options.zoomHold)
        return ZoomState::identity();
    const double s = std::max(m_options.zoomScale, 1.0);
    const double half = 0.5 / s;
    // Follow the pointer while zoomed, so what is being pointed at stays in view.
    double x = m_hasPointer ? m_pointerX : m_lastZoomClick->x;
    double y = m_hasPointer ? m_pointerY : m_lastZoomClick->y;
    return {s, std::clamp(x, half, 1 - half), std::clamp(y, half, 1 - half)};
}

StageMoment LiveMomentSource::moment(double rawTime, double dt)
{
    const double t = finite(rawTime) ? rawTime : 0;
    const double step = finite(dt) && dt > 0 ? dt : 0;
    const LiveSwitches::State on = m_switches->state();

    if (m_inputs) {
        if (auto p = m_inputs->pointer()) {
            m_pointerX = p->first;
            m_pointerY = p->second;
            m_hasPointer = true;
        }
        for (const LiveInputBus::Click& c : m_inputs->takeClicks()) {
            m_clicks.push_back({t, c.x, c.y});
            if (on.zoomOnClicks)
                m_lastZoomClick = TimedClick{t, c.x, c.y};
        }
    }
    std::erase_if(m_clicks, [&](const TimedClick& c) { return t - c.t >= m_options.clickLife; });
    if (!on.zoomOnClicks)
        m_lastZoomClick.reset();

    StageMoment m;
    const ZoomState target = framingTarget(t);
    if (!m_zoomWasOn && target.isIdentity() && m_framing.scale == 1) {
        m_framing = {};
    } else {
        m_framing.advance(target.scale, target.centerX, target.centerY, step);
        // Settled back at the full picture: snap, so an idle stream is exactly unzoomed.
        if (target.isIdentity() && std::abs(m_framing.scale - 1) < 1e-3 && std::abs(m_framing.vScale) < 1e-3)
            m_framing = {};
    }
    m_zoomWasOn = !target.isIdentity();
    m.zoom = {std::max(m_framing.scale, 1.0), m_framing.centerX, m_framing.centerY};
    if (on.motionEffects && step > 0) {
        double travel = std::hypot(m.zoom.centerX - m_previousZoom.centerX, m.zoom.centerY - m_previousZoom.centerY)
            * std::max(m.zoom.scale, m_previousZoom.scale);
        double change = std::abs(m.zoom.scale - m_previousZoom.scale) + travel;
        m.zoomVelocity = finite(change) ? change / step : 0;
    }
    m_previousZoom = m.zoom;

    if (m_hasPointer) {
        if (!m_springPlaced || !m_options.glide) {
            m_spring = {};
            m_spring.x = m_pointerX;
            m_spring.y = m_pointerY;
            m_springPlaced = true;
        } else {
            m_spring.advance(m_pointerX, m_pointerY, step);
        }
        StageMoment::Cursor cursor;
        cursor.x = m_spring.x;
        cursor.y = m_spring.y;
        const Point before = on.motionEffects ? m_previousPoint : Point{cursor.x, cursor.y};
        cursor.previousX = before.x;
        cursor.previousY = before.y;
        const double alpha = m_idle.advance(m_pointerX, m_pointerY, finite(dt) ? step : dt);
        cursor.alpha = m_options.hidesIdleCursor ? alpha : 1;
        if (!m_clicks.empty()) {
            double age = t - m_clicks.back().t;
            if (age < RecordedMomentSource::pressSpan)
                cursor.press = 1 - age / RecordedMomentSource::pressSpan;
        }
        m.cursor = cursor;
        m_previousPoint = {cursor.x, cursor.y};
    }

    if (m_options.clickRings && on.motionEffects)
        for (const TimedClick& c : m_clicks)
            m.clicks.push_back({c.x, c.y, t - c.t});
    return m;
}

} // namespace plim
