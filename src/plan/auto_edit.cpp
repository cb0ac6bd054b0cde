#include "plan/auto_edit.h"

#include "base/dates.h"
#include "capture/capture.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace plim::AutoEdit {

namespace {

// Trim
constexpr double motionThreshold = 6.0;   // points from the first sample
constexpr double leadBeforeActivity = 0.35;
constexpr double tailAfterClick = 1.1;
constexpr double tailAfterBusy = 0.25;
constexpr double shortestTrim = 0.5;
// Busy spans
constexpr double keyWiden = 0.5;
constexpr double speechWiden = 0.3;
// Skips
constexpr double ticksPerSecond = 120;
constexpr int speedWindowTicks = 12;      // 0.1 s
constexpr double idleSpeed = 30.0;        // points per second
constexpr double shortestIdleRun = 1.6;
constexpr double calmMargin = 0.3;
constexpr double skipSpeed = 4.0;
// Zooms
constexpr double clusterGap = 2.4;
constexpr double clusterReach = 640.0;    // points from the cluster's centroid
constexpr double zoomLead = 0.55;
constexpr double zoomTail = 0.95;
constexpr double shortestZoomFromLead = 1.6;
constexpr double shortestZoom = 0.6;

bool finite(double v) { return std::isfinite(v); }

double hypotenuse(double dx, double dy) { return std::sqrt(dx * dx + dy * dy); }

// Pointer position at times that never go backwards: linear between the samples around
// t, the first position before them and the last after them.
class PointerWalk {
public:
    explicit PointerWalk(const std::vector<PointerSample>& samples) : m_samples(samples) {}

    std::pair<double, double> at(double t)
    {
        const auto& s = m_samples;
        if (t <= s.front().t)
            return {s.front().x, s.front().y};
        if (t >= s.back().t)
            return {s.back().x, s.back().y};
        while (m_index + 1 < s.size() && s[m_index + 1].t <= t)
            ++m_index;
        const PointerSample& a = s[m_index];
        const PointerSample& b = s[m_index + 1];
        double f = (t - a.t) / (b.t - a.t);
        return {a.x + (b.x - a.x) * f, a.y + (b.y - a.y) * f};
    }

private:
    const std::vector<PointerSample>& m_samples;
    size_t m_index = 0;
};

bool sizeKnown(Size size) { return size.isUsable(); }

} // namespace

std::string_view subjectText(Subject subject)
{
    switch (subject) {
    case Subject::screen: return "screen";
    case Subject::window: return "window";
    case Subject::area: return "area";
    case Subject::phone: return "phone";
    }
    return "screen";
}

std::optional<Subject> subjectFromText(std::string_view text)
{
    for (Subject s : {Subject::screen, Subject::window, Subject::area, Subject::phone})
        if (subjectText(s) == text)
            return s;
    return std::nullopt;
}

Performance cleaned(Performance p)
{
    if (!finite(p.duration) || p.duration < 0)
        p.duration = 0;
    p.duration = std::min(p.duration, longestRecordingSeconds);
    std::erase_if(p.pointer, [](const PointerSample& s) { return !finite(s.t) || !finite(s.x) || !finite(s.y); });
    std::erase_if(p.actionPoints, [](const ActionPoint& a) { return !finite(a.t) || !finite(a.x) || !finite(a.y); });
    std::erase_if(p.activity, [](double t) { return !finite(t); });
    std::erase_if(p.speech, [](const IdleSpan& s) { return !finite(s.start) || !finite(s.end) || s.end < s.start; });
    auto byT = [](const auto& a, const auto& b) { return a.t < b.t; };
    std::stable_sort(p.pointer.begin(), p.pointer.end(), byT);
    std::stable_sort(p.actionPoints.begin(), p.actionPoints.end(), byT);
    std::sort(p.activity.begin(), p.activity.end());
    std::stable_sort(p.speech.begin(), p.speech.end(), [](const IdleSpan& a, const IdleSpan& b) { return a.start < b.start; });
    return p;
}

std::vector<IdleSpan> busySpans(const Performance& p)
{
    std::vector<IdleSpan> spans;
    spans.reserve(p.activity.size() + p.speech.size());
    for (double t : p.activity)
        spans.push_back({t - keyWiden, t + keyWiden});
    for (const IdleSpan& s : p.speech)
        spans.push_back({s.start - speechWiden, s.end + speechWiden});
    std::stable_sort(spans.begin(), spans.end(), [](const IdleSpan& a, const IdleSpan& b) { return a.start < b.start; });
    std::vector<IdleSpan> merged;
    for (const IdleSpan& s : spans) {
        if (!merged.empty() && s.start < merged.back().end)
            merged.back().end = std::max(merged.back().end, s.end);
        else
            merged.push_back(s);
    }
    return merged;
}

Trim makeTrim(const Performance& p, const std::vector<IdleSpan>& busy)
{
    double duration = p.duration;
    double firstMotion = duration;
    if (!p.pointer.empty()) {
        const PointerSample& first = p.pointer.front();
        for (const PointerSample& s : p.pointer) {
            if (hypotenuse(s.x - first.x, s.y - first.y) > motionThreshold) {
                firstMotion = s.t;
                break;
            }
        }
    }
    double firstActivity = firstMotion;
    if (!p.actionPoints.empty())
        firstActivity = std::min(firstActivity, p.actionPoints.front().t);
    if (!busy.empty())
        firstActivity = std::min(firstActivity, busy.front().start);
    if (firstActivity >= duration)
        firstActivity = 0;

    double lastAction = p.actionPoints.empty() ? duration : p.actionPoints.back().t;
    double lastBusyEnd = tailAfterBusy;
    if (!busy.empty()) {
        double greatest = busy.front().end;
        for (const IdleSpan& s : busy)
            greatest = std::max(greatest, s.end);
        lastBusyEnd = greatest + tailAfterBusy;
    }

    Trim trim;
    trim.in = std::min(duration, std::max(0.0, firstActivity - leadBeforeActivity));
    trim.out = std::max({trim.in + shortestTrim, lastAction + tailAfterClick, lastBusyEnd});
    trim.out = std::max(std::min(trim.out, duration), 0.0);
    if (trim.out - trim.in < shortestTrim)
        trim.in = std::max(0.0, trim.out - shortestTrim);
    return trim;
}

std::vector<Skip> makeSkips(const Performance& p, const std::vector<IdleSpan>& busy, const Trim& trim)
{
    std::vector<Skip> skips;
    if (p.pointer.empty())
        return skips;
    auto firstTick = static_cast<int64_t>(std::ceil(trim.in * ticksPerSecond));
    auto lastTick = static_cast<int64_t>(std::floor(trim.out * ticksPerSecond));
    if (lastTick < firstTick)
        return skips;

    PointerWalk now(p.pointer), earlier(p.pointer);
    size_t busyIndex = 0;
    bool inRun = false;
    int64_t runStart = 0;
    for (int64_t k = firstTick; k <= lastTick; ++k) {
        double t = static_cast<double>(k) / ticksPerSecond;
        // The speed over the last 0.1 s, looking back no further than the trim-in; on a
        // tick exactly at the trim-in, over the tick after it.
        double backT = std::max(static_cast<double>(k - speedWindowTicks) / ticksPerSecond, trim.in);
        auto [x, y] = now.at(t);
        double speed = 0;
        if (t - backT > timeEpsilon) {
            auto [bx, by] = earlier.at(backT);
            speed = hypotenuse(x - bx, y - by) / (t - backT);
        } else {
            auto [nx, ny] = PointerWalk(p.pointer).at(t + 1 / ticksPerSecond);
            speed = hypotenuse(nx - x, ny - y) * ticksPerSecond;
        }

        while (busyIndex < busy.size() && busy[busyIndex].end < t)
            ++busyIndex;
        bool busyNow = busyIndex < busy.size() && busy[busyIndex].start <= t;
        bool idle = speed < idleSpeed && !busyNow;

        if (idle && !inRun) {
            inRun = true;
            runStart = k;
        }
        if (inRun && (!idle || k == lastTick)) {
            double length = static_cast<double>(k - runStart) / ticksPerSecond;
            if (length >= shortestIdleRun - timeEpsilon) {
                double s = static_cast<double>(runStart) / ticksPerSecond;
                skips.push_back({s + calmMargin, t - calmMargin, skipSpeed});
            }
            inRun = false;
        }
    }
    return skips;
}

double clusterFit(Size size, double boxWidth, double boxHeight)
{
    if (!sizeKnown(size))
        return 0;
    return std::min(size.height / (0.27 * size.height + boxHeight), size.width / (0.23 * size.width + boxWidth));
}

double zoomLevel(Subject subject, double fit)
{
    if (!finite(fit))
        fit = 0;
    if (subject == Subject::phone) {
        double level = std::floor(fit * 10 + 1e-9) / 10;
        return std::min(std::max(level, 1.15), 1.4);
    }
    for (double level : {2.4, 1.8, 1.4})
        if (fit >= level - 1e-9)
            return level;
    return 1.4;
}

std::vector<Zoom> makeZooms(const Performance& p, const Trim& trim, const std::vector<Skip>& skips)
{
    struct Cluster {
        std::vector<ActionPoint> clicks;
        double sumX = 0, sumY = 0;
    };
    std::vector<Cluster> clusters;
    for (const ActionPoint& click : p.actionPoints) {
        if (click.t < trim.in - timeEpsilon || click.t > trim.out + timeEpsilon)
            continue;
        if (!clusters.empty()) {
            Cluster& c = clusters.back();
            double n = static_cast<double>(c.clicks.size());
            bool soon = click.t - c.clicks.back().t < clusterGap - timeEpsilon;
            bool near = hypotenuse(click.x - c.sumX / n, click.y - c.sumY / n) < clusterReach;
            if (soon && near) {
                c.clicks.push_back(click);
                c.sumX += click.x;
                c.sumY += click.y;
                continue;
            }
        }
        clusters.push_back({{click}, click.x, click.y});
    }

    std::vector<Zoom> zooms;
    for (const Cluster& c : clusters) {
        double lead = c.clicks.front().t - zoomLead;
        Zoom z;
        z.start = std::max(trim.in, lead);
        z.end = std::min(std::max(c.clicks.back().t + zoomTail, lead + shortestZoomFromLead), trim.out);
        double minX = c.clicks.front().x, maxX = minX, minY = c.clicks.front().y, maxY = minY;
        for (const ActionPoint& a : c.clicks) {
            minX = std::min(minX, a.x), maxX = std::max(maxX, a.x);
            minY = std::min(minY, a.y), maxY = std::max(maxY, a.y);
        }
        z.level = zoomLevel(p.subject, clusterFit(p.recordedSize, maxX - minX, maxY - minY));
        if (sizeKnown(p.recordedSize)) {
            z.x = std::clamp((minX + maxX) / 2 / p.recordedSize.width, 0.0, 1.0);
            z.y = std::clamp((minY + maxY) / 2 / p.recordedSize.height, 0.0, 1.0);
        }
        z.clicks = static_cast<int>(c.clicks.size());
        for (const Skip& s : skips) {
            if (z.start < s.end && s.start < z.end) {
                if (z.start < s.start)
                    z.end = s.start;
                else
                    z.start = std::max(z.start, s.end);
            }
        }
        if (z.end - z.start > shortestZoom + timeEpsilon)
            zooms.push_back(z);
    }
    return zooms;
}

Proposal make(const Performance& raw)
{
    Performance p = cleaned(raw);
    std::vector<IdleSpan> busy = busySpans(p);
    Proposal result;
    result.trim = makeTrim(p, busy);
    result.skips = makeSkips(p, busy, result.trim);
    result.zooms = makeZooms(p, result.trim, result.skips);
    return result;
}

std::string speedLabel(double speed)
{
    if (!finite(speed))
        return "?×";
    char text[64];
    if (speed == std::floor(speed) && std::abs(speed) < 1e15)
        std::snprintf(text, sizeof text, "%.0f×", speed);
    else
        std::snprintf(text, sizeof text, "%.1f×", speed);
    return text;
}

bool pointerSmoothed(const Performance& performance)
{
    return performance.subject != Subject::phone && !performance.pointer.empty();
}

std::string summary(const Proposal& result, double duration, bool deadAirSpedUp, bool cursorSmoothed)
{
    std::vector<std::string> pieces;
    if (!result.zooms.empty()) {
        size_t n = result.zooms.size();
        pieces.push_back(std::to_string(n) + " zoom" + (n == 1 ? "" : "s") + " where you clicked");
    }
    if (!result.skips.empty() && deadAirSpedUp) {
        double fastest = result.skips.front().speed;
        for (const Skip& s : result.skips)
            fastest = std::max(fastest, s.speed);
        pieces.push_back("dead air " + speedLabel(fastest) + " faster");
    }
    if (result.trim.in + (duration - result.trim.out) > 0.3 + timeEpsilon)
        pieces.push_back("ends trimmed");
    if (cursorSmoothed)
        pieces.push_back("cursor smoothed");
    if (pieces.empty())
        return "Nothing needed editing";
    std::string line = pieces.front();
    for (size_t i = 1; i < pieces.size(); ++i)
        line += " · " + pieces[i];
    return line;
}

Subject subjectOf(const CursorTrack& track)
{
    if (track.subjectKind == "device")
        return Subject::phone;
    if (!track.frames.empty())
        return Subject::window;
    return Subject::screen;
}

Performance performance(const CursorTrack& cursor, const KeystrokeTrack* keys, std::vector<IdleSpan> speech,
    double duration, std::optional<Subject> subject)
{
    Performance p;
    p.duration = finite(duration) && duration >= 0 ? duration : 0;
    p.subject = subject.value_or(subjectOf(cursor));
    p.recordedSize = {cursor.displayWidth, cursor.displayHeight};
    bool known = sizeKnown(p.recordedSize);
    double w = known ? p.recordedSize.width : 1, h = known ? p.recordedSize.height : 1;

    const TrackPlacement place(cursor);
    p.pointer.reserve(cursor.samples.size());
    for (const CursorSample& s : cursor.samples) {
        Point u = place.unitPoint(s.x, s.y, s.t);
        p.pointer.push_back({place.movieSeconds(s.t), u.x * w, u.y * h});
        if (s.k == 1)
            p.activity.push_back(place.movieSeconds(s.t));
    }
    for (const ClickEvent& c : cursor.clicks) {
        Point u = place.unitPoint(c.x, c.y, c.t);
        p.actionPoints.push_back({place.movieSeconds(c.t), u.x * w, u.y * h});
    }
    if (keys) {
        for (const KeyEvent& e : keys->events)
            p.activity.push_back(place.movieSeconds(e.t));
    }
    p.speech = std::move(speech);
    return p;
}

EditPlan plan(const Proposal& result)
{
    EditPlan plan;
    if (result.trim.out > result.trim.in) {
        plan.trimIn = result.trim.in;
        plan.trimOut = result.trim.out;
    }
    for (const Skip& s : result.skips)
        plan.skips.push_back(SkipDecision{{s.start, s.end}, false, s.speed});
    for (const Zoom& z : result.zooms) {
        ZoomBlock block;
        block.id = makeUuid();
        block.start = z.start;
        block.end = z.end;
        block.centerX = z.x;
        block.centerY = z.y;
        block.scale = z.level;
        block.origin = ZoomBlock::Origin::clickCluster(z.clicks);
        plan.zooms.push_back(std::move(block));
    }
    return plan;
}

} // namespace plim::AutoEdit
