#include "stage/recorded_moment_source.h"

#include "capture/capture.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace plim {

namespace {

bool isFinite(double v) { return std::isfinite(v); }

double unitClamped(double v) { return std::clamp(v, 0.0, 1.0); }

double nonNegativeOr0(double v) { return isFinite(v) && v > 0 ? v : 0; }

template<typename T, typename Key>
void sortIfNeeded(std::vector<T>& items, Key key)
{
    if (!std::ranges::is_sorted(items, {}, key))
        std::ranges::stable_sort(items, {}, key);
}

} // namespace

RecordedMomentSource::RecordedMomentSource(Parts parts) : m_parts(std::move(parts))
{
    m_parts.clickLife = nonNegativeOr0(m_parts.clickLife);
    m_parts.keyLinger = nonNegativeOr0(m_parts.keyLinger);

    auto& beats = m_parts.clickBeats;
    std::erase_if(beats, [](const ClickBeat& b) { return !isFinite(b.t) || !isFinite(b.x) || !isFinite(b.y); });
    for (ClickBeat& b : beats)
        b.x = unitClamped(b.x), b.y = unitClamped(b.y);
    sortIfNeeded(beats, &ClickBeat::t);

    sortIfNeeded(m_parts.keystrokes.events, &KeyEvent::t);

    auto& cues = m_parts.captions;
    std::erase_if(cues, [](const CaptionCue& c) { return !isFinite(c.start) || !isFinite(c.end); });
    sortIfNeeded(cues, &CaptionCue::start);
    m_captionReach.reserve(cues.size());
    double reach = -std::numeric_limits<double>::infinity();
    for (const CaptionCue& c : cues)
        m_captionReach.push_back(reach = std::max(reach, c.end));

    if (m_parts.switches.showsTouches) {
        for (const TapMark& tap : m_parts.plan.taps)
            if (isFinite(tap.t) && isFinite(tap.x) && isFinite(tap.y))
                m_taps.push_back(TapMark{tap.id, tap.t, unitClamped(tap.x), unitClamped(tap.y)});
        sortIfNeeded(m_taps, &TapMark::t);
    }
}

double RecordedMomentSource::clickLifeFor(ClickStyle style)
{
    switch (style) {
    case ClickStyle::none: return 0;
    case ClickStyle::ring: return 0.6;
    case ClickStyle::pulse: return 0.7;
    case ClickStyle::spotlight: return 0.5;
    case ClickStyle::highlight: return 0.45;
    }
    return 0.6;
}

RecordedMomentSource RecordedMomentSource::forPlim(const CursorTrack& cursor, const KeystrokeTrack& keystrokes,
    const EditPlan& plan, const StageSpec& look, double rawDuration, std::vector<CaptionCue> captions,
    Options options)
{
    const bool device = cursor.subjectKind == "device";
    Parts parts;
    parts.curve = ZoomCurve(plan.zooms, look.zoomStyle);
    if (!device)
        parts.smoother = CursorSmoother(cursor,
            isFinite(rawDuration) && rawDuration > 0 ? rawDuration : CursorSmoother::longestSpan, options.glide);
    parts.plan = plan;
    const TrackPlacement place(cursor);
    if (options.keycaps) {
        parts.keystrokes = keystrokes;
        for (KeyEvent& e : parts.keystrokes.events)
            e.t = place.movieMS(e.t);
    }
    parts.captions = std::move(captions);

    std::vector<ClickBeat>& beats = parts.clickBeats;
    beats.reserve(cursor.clicks.size() + (device ? plan.taps.size() : 0));
    for (const ClickEvent& c : cursor.clicks) {
        if (!isFinite(c.x) || !isFinite(c.y))
            continue;
        Point p = place.unitPoint(c.x, c.y, c.t);
        beats.push_back(ClickBeat{place.movieSeconds(c.t), p.x, p.y});
    }
    if (device)
        for (const TapMark& tap : plan.taps)
            beats.push_back(ClickBeat{tap.t, tap.x, tap.y});

    parts.clickLife = clickLifeFor(look.clickStyle);
    parts.switches.emitsClicks = look.clickStyle != ClickStyle::none;
    parts.switches.reportsMotion = options.motionBlur;
    parts.switches.hasCursor = !device && !cursor.samples.empty();
    parts.switches.reportsPointer = look.cursorSize > 0;
    parts.switches.hidesIdleCursor = look.cursorHideWhenIdle;
    parts.switches.showsTouches = device;
    parts.rawDuration = rawDuration;
    parts.keyLinger = defaultKeyLinger;
    return RecordedMomentSource(std::move(parts));
}

StageMoment RecordedMomentSource::moment(double rawTime, double dt)
{
    const double t = rawTime;
    StageMoment m;
    m.zoom = m_parts.curve.state(t);
    if (m_parts.switches.reportsMotion)
        m.zoomVelocity = zoomVelocity(t, m.zoom);
    m.cursor = cursorAt(t, dt);
    m.touch = touchAt(t);
    if (m_parts.switches.emitsClicks)
        m.clicks = clicksAt(t);
    m.masks = m_parts.plan.masksAt(t);
    m.keycaps = keycapsAt(t);
    m.keycapTime = t;
    m.caption = captionAt(t);
    m.transition = m_parts.plan.transition(t, m_parts.rawDuration);
    return m;
}

double RecordedMomentSource::zoomVelocity(double t, const ZoomState& now) const
{
    // Scale change plus the centre's travel in magnified picture widths, per second.
    ZoomState later = m_parts.curve.state(t + zoomVelocitySpan);
    double scale = std::max(now.scale, later.scale);
    double travel = std::hypot(later.centerX - now.centerX, later.centerY - now.centerY) * scale;
    double change = std::abs(later.scale - now.scale) + travel;
    return isFinite(change) ? change / zoomVelocitySpan : 0;
}

std::optional<StageMoment::Cursor> RecordedMomentSource::cursorAt(double t, double dt) const
{
    const Switches& on = m_parts.switches;
    if (!on.hasCursor || m_parts.smoother.empty())
        return std::nullopt;
    StageMoment::Cursor cursor;
    CursorSmoother::Point now = m_parts.smoother.position(t);
    cursor.x = now.x;
    cursor.y = now.y;
    CursorSmoother::Point before = now;
    if (on.reportsMotion && isFinite(dt) && dt > 0)
        before = m_parts.smoother.position(t - dt);
    cursor.previousX = before.x;
    cursor.previousY = before.y;
    cursor.alpha = !on.reportsPointer ? 0 : on.hidesIdleCursor ? restingAlpha(t) : 1;

    if (on.emitsClicks && isFinite(t)) {
        const auto& beats = m_parts.clickBeats;
        auto after = std::ranges::partition_point(beats, [t](const ClickBeat& b) { return b.t <= t; });
        if (after != beats.begin()) {
            double age = t - (after - 1)->t;
            if (age < pressSpan)
                cursor.press = 1 - age / pressSpan;
        }
    }
    return cursor;
}

double RecordedMomentSource::idleTime(double t) const
{
    if (!isFinite(t) || t <= 0 || m_parts.smoother.empty())
        return 0;
    const CursorSmoother& smoother = m_parts.smoother;
    CursorSmoother::Point here = smoother.position(t);
    double idle = 0;
    const int probes = static_cast<int>(std::lround(restFadeEnd / restProbe));
    for (int k = 1; k <= probes; ++k) {
        double at = std::max(t - k * restProbe, 0.0);
        CursorSmoother::Point there = smoother.position(at);
        if (std::hypot(there.x - here.x, there.y - here.y) > restTolerance)
            break;
        idle = t - at;
        if (at <= 0)
            break;
    }
    return std::min(idle, restFadeEnd);
}

double RecordedMomentSource::restingAlpha(double t) const
{
    double idle = idleTime(t);
    if (idle <= restFadeStart)
        return 1;
    return 1 - std::min((idle - restFadeStart) / (restFadeEnd - restFadeStart), 1.0);
}

std::optional<StageMoment::Touch> RecordedMomentSource::touchAt(double t) const
{
    if (m_taps.empty() || !isFinite(t))
        return std::nullopt;
    auto after = std::ranges::partition_point(m_taps, [t](const TapMark& tap) { return tap.t <= t; });
    if (after == m_taps.begin())
        return std::nullopt;
    const TapMark& tap = *(after - 1);
    if (t - tap.t >= touchSpan)
        return std::nullopt;
    return StageMoment::Touch{tap.x, tap.y};
}

std::vector<StageMoment::Click> RecordedMomentSource::clicksAt(double t) const
{
    // Ages fall along the time-ordered beats: those aged [0, life) form one run.
    const auto& beats = m_parts.clickBeats;
    const double life = m_parts.clickLife;
    auto end = std::ranges::partition_point(beats, [t](const ClickBeat& b) { return t - b.t >= 0; });
    auto begin = std::partition_point(beats.begin(), end, [t, life](const ClickBeat& b) { return t - b.t >= life; });
    std::vector<StageMoment::Click> out;
    out.reserve(static_cast<size_t>(end - begin));
    for (auto it = begin; it != end; ++it)
        out.push_back(StageMoment::Click{it->x, it->y, t - it->t});
    return out;
}

std::vector<KeyEvent> RecordedMomentSource::keycapsAt(double t) const
{
    // The events shown at t are those with shown <= t <= shown + linger: one run of the
    // time-ordered track.
    const auto& events = m_parts.keystrokes.events;
    const double linger = m_parts.keyLinger;
    auto shown = [](const KeyEvent& e) { return static_cast<double>(e.t) / 1000.0; };
    auto end = std::ranges::partition_point(events, [&](const KeyEvent& e) { return shown(e) <= t; });
    auto begin = std::partition_point(events.begin(), end, [&](const KeyEvent& e) { return !(t <= shown(e) + linger); });
    return std::vector<KeyEvent>(begin, end);
}

std::optional<std::string> RecordedMomentSource::captionAt(double t) const
{
    // The first cue (in time order) with start <= t < end: among the cues that have
    // started, the first whose running latest end passes t ends past t itself.
    const auto& cues = m_parts.captions;
    auto started = std::ranges::partition_point(cues, [t](const CaptionCue& c) { return c.start <= t; });
    size_t count = static_cast<size_t>(started - cues.begin());
    auto reach = std::partition_point(
        m_captionReach.begin(), m_captionReach.begin() + static_cast<std::ptrdiff_t>(count), [t](double end) { return end <= t; });
    size_t index = static_cast<size_t>(reach - m_captionReach.begin());
    if (index >= count)
        return std::nullopt;
    return cues[index].text;
}

} // namespace plim
