#include "plan/edit_plan.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>

namespace plim {

namespace {

bool finite(double v) { return std::isfinite(v); }

// Whole milliseconds, truncated toward zero; 0 for values that do not fit.
long long wholeMilliseconds(double seconds)
{
    double ms = std::trunc(seconds * 1000.0);
    if (!std::isfinite(ms) || std::fabs(ms) > 9.0e18)
        return 0;
    return static_cast<long long>(ms);
}

// Stretches of [0, rawDuration] that no clip covers.
std::vector<IdleSpan> uncoveredSpans(const std::vector<PlimClip>& clips, double rawDuration)
{
    std::vector<PlimClip> sorted = sanitizeClips(clips, rawDuration);
    std::stable_sort(sorted.begin(), sorted.end(),
        [](const PlimClip& a, const PlimClip& b) { return a.start < b.start; });
    std::vector<IdleSpan> out;
    double cursor = 0;
    for (const auto& clip : sorted) {
        if (clip.start > cursor)
            out.push_back({cursor, clip.start});
        cursor = std::max(cursor, clip.end);
    }
    if (cursor < rawDuration)
        out.push_back({cursor, rawDuration});
    return out;
}

// A rate the remap cannot play (0, negative, not finite) plays at 1; others within the
// speed range.
double playableRate(double rate)
{
    if (!std::isfinite(rate) || rate <= 0)
        return 1.0;
    return std::clamp(rate, plan_limits::minSkipRate, plan_limits::maxSkipRate);
}

// Half-width or length of a transition from its stored duration.
double transitionLength(double duration)
{
    if (!std::isfinite(duration))
        return 0.35;
    return std::clamp(duration, 0.1, 1.0);
}

} // namespace

std::string SkipDecision::identity() const
{
    return "skip-" + std::to_string(wholeMilliseconds(span.start));
}

std::string EditPlan::Segment::identity() const
{
    return "segment-" + std::to_string(wholeMilliseconds(start)) + "-" + std::to_string(wholeMilliseconds(end));
}

Rect MaskRegion::rect() const
{
    if (!finite(x) || !finite(y) || !finite(w) || !finite(h))
        return Rect{};
    double left = std::clamp(x, 0.0, 1.0);
    double right = std::clamp(x + w, 0.0, 1.0);
    double top = std::clamp(y, 0.0, 1.0);
    double bottom = std::clamp(y + h, 0.0, 1.0);
    return Rect{left, top, std::max(0.0, right - left), std::max(0.0, bottom - top)};
}

std::vector<RemapStep> EditPlan::steps(const std::vector<SkipDecision>& skips, const std::vector<IdleSpan>& cuts,
    std::optional<double> trimIn, std::optional<double> trimOut, double rawDuration)
{
    const double raw = rawDuration;
    if (!finite(raw) || raw <= 0)
        return {};

    std::vector<IdleSpan> removed;
    for (const auto& cut : cuts) {
        if (!finite(cut.start) || !finite(cut.end))
            continue;
        IdleSpan span{std::min(std::max(cut.start, 0.0), raw), std::min(std::max(cut.end, 0.0), raw)};
        if (span.end - span.start > timeEpsilon)
            removed.push_back(span);
    }
    if (trimIn && finite(*trimIn) && *trimIn > 0) {
        double end = std::min(*trimIn, raw);
        if (end > timeEpsilon)
            removed.push_back({0, end});
    }
    if (trimOut && finite(*trimOut)) {
        double start = std::min(std::max(*trimOut, 0.0), raw);
        if (raw - start > timeEpsilon)
            removed.push_back({start, raw});
    }

    std::stable_sort(removed.begin(), removed.end(),
        [](const IdleSpan& a, const IdleSpan& b) { return a.start < b.start; });
    std::vector<IdleSpan> merged;
    for (const auto& span : removed) {
        if (!merged.empty() && span.start <= merged.back().end + timeEpsilon)
            merged.back().end = std::max(merged.back().end, span.end);
        else
            merged.push_back(span);
    }

    std::vector<RemapStep> out;
    for (const auto& span : merged)
        out.push_back({span, RemapMode::cut()});

    for (const auto& skip : skips) {
        if (skip.keep || !finite(skip.span.start) || !finite(skip.span.end) || !finite(skip.rate) || skip.rate < 0)
            continue;
        std::vector<IdleSpan> pieces{{std::clamp(skip.span.start, 0.0, raw), std::clamp(skip.span.end, 0.0, raw)}};
        for (const auto& cut : merged) {
            std::vector<IdleSpan> next;
            for (const auto& piece : pieces) {
                if (piece.start < cut.end && cut.start < piece.end) {
                    if (cut.start - piece.start > timeEpsilon)
                        next.push_back({piece.start, cut.start});
                    if (piece.end - cut.end > timeEpsilon)
                        next.push_back({cut.end, piece.end});
                } else {
                    next.push_back(piece);
                }
            }
            pieces = std::move(next);
        }
        for (const auto& piece : pieces)
            if (piece.end - piece.start > timeEpsilon)
                out.push_back({piece, RemapMode::rate(skip.rate > 0 ? playableRate(skip.rate) : skip.rate)});
    }

    std::stable_sort(out.begin(), out.end(),
        [](const RemapStep& a, const RemapStep& b) { return a.span.start < b.span.start; });
    return out;
}

std::vector<RemapStep> EditPlan::steps(double rawDuration) const
{
    if (clips && !clips->empty())
        return steps(skips, uncoveredSpans(*clips, rawDuration), std::nullopt, std::nullopt, rawDuration);
    std::vector<IdleSpan> removed;
    removed.reserve(cuts.size());
    for (const auto& cut : cuts)
        removed.push_back({cut.start, cut.end});
    return steps(skips, removed, trimIn, trimOut, rawDuration);
}

std::vector<IdleSpan> EditPlan::activeSkips() const
{
    std::vector<IdleSpan> out;
    for (const auto& skip : skips)
        if (!skip.keep)
            out.push_back(skip.span);
    return out;
}

std::vector<EditPlan::RateSegment> EditPlan::activeSegments() const
{
    std::vector<RateSegment> out;
    for (const auto& skip : skips)
        if (!skip.keep)
            out.push_back({skip.span, playableRate(skip.rate)});
    return out;
}

std::vector<IdleSpan> EditPlan::removedSpans(double rawDuration) const
{
    std::vector<IdleSpan> out;
    for (const auto& step : steps(rawDuration))
        if (step.mode.isCut())
            out.push_back(step.span);
    return out;
}

std::vector<IdleSpan> EditPlan::droppedAudioSpans(double rawDuration) const
{
    return removedSpans(rawDuration);
}

std::vector<EditPlan::Segment> EditPlan::segments(double rawDuration) const
{
    if (!finite(rawDuration) || rawDuration <= 0)
        return {};
    std::vector<Segment> out;
    double cursor = 0;
    for (const auto& span : removedSpans(rawDuration)) {
        if (span.start - cursor > timeEpsilon)
            out.push_back({cursor, span.start});
        cursor = std::max(cursor, span.end);
    }
    if (rawDuration - cursor > timeEpsilon)
        out.push_back({cursor, rawDuration});
    return out;
}

ClipTimeline EditPlan::clipTimeline(double rawDuration) const
{
    std::vector<PlimClip> stretches;
    if (clips && !clips->empty()) {
        stretches = *clips;
    } else {
        for (const auto& segment : segments(rawDuration))
            stretches.push_back({segment.identity(), segment.start, segment.end});
    }
    return ClipTimeline::make(stretches, steps(rawDuration), rawDuration);
}

std::vector<EditPlan::PlayedSkip> EditPlan::playedSkips(double rawDuration) const
{
    std::vector<PlayedSkip> out;
    if (!finite(rawDuration) || rawDuration <= 0)
        return out;
    ClipTimeline timeline = clipTimeline(rawDuration);
    for (const auto& skip : skips) {
        if (!finite(skip.span.start) || !finite(skip.span.end))
            continue;
        double s = std::clamp(skip.span.start, 0.0, rawDuration);
        double e = std::clamp(skip.span.end, 0.0, rawDuration);
        for (std::size_t i = 0; i < timeline.pieces.size(); ++i) {
            const auto& piece = timeline.pieces[i];
            if (std::min(e, piece.rawEnd) - std::max(s, piece.rawStart) <= timeEpsilon)
                continue;
            if (auto at = timeline.outputTimeIn(i, std::max(s, piece.rawStart)))
                out.push_back({skip, *at});
            break;
        }
    }
    return out;
}

std::vector<MaskRegion> EditPlan::masksAt(double t) const
{
    std::vector<MaskRegion> out;
    for (const auto& mask : masks)
        if (mask.start <= t && t < mask.end)
            out.push_back(mask);
    return out;
}

std::optional<EditPlan::TransitionPhase> EditPlan::transition(double t, double rawDuration) const
{
    const double raw = rawDuration;
    if (!finite(t) || !finite(raw) || raw < 0)
        return std::nullopt;

    std::optional<TransitionPhase> best;
    for (const auto& cut : cuts) {
        if (!cut.transition || !finite(cut.start) || !finite(cut.end) || cut.end - cut.start < timeEpsilon)
            continue;
        double h = transitionLength(cut.transition->duration) / 2;
        double s = std::clamp(cut.start, 0.0, raw);
        double e = std::clamp(cut.end, 0.0, raw);
        std::optional<double> phase;
        if (s - h <= t && t < s)
            phase = (t - (s - h)) / h;
        else if (e <= t && t < e + h)
            phase = 1 - (t - e) / h;
        if (!phase)
            continue;
        double capped = std::min(*phase, 1.0);
        if (!best || capped > best->phase)
            best = TransitionPhase{cut.transition->kind, capped};
    }

    if (fadeIn) {
        double start = trimIn && *trimIn > 0 ? std::clamp(*trimIn, 0.0, raw) : 0.0;
        double d = std::min(transitionLength(fadeIn->duration), raw);
        if (start <= t && t < start + d) {
            double phase = std::min(1 - (t - start) / d, 1.0);
            if (!best || phase > best->phase)
                best = TransitionPhase{fadeIn->kind, phase};
        }
    }
    if (fadeOut) {
        double end = trimOut && *trimOut < raw ? *trimOut : raw;
        if (!(end > 0))
            end = 0;
        double d = std::min(transitionLength(fadeOut->duration), raw);
        if (end - d <= t && t < end) {
            double phase = std::min((t - (end - d)) / d, 1.0);
            if (!best || phase > best->phase)
                best = TransitionPhase{fadeOut->kind, phase};
        }
    }
    return best;
}

EditPlan EditPlan::suspending(std::string_view zoomID) const
{
    EditPlan copy = *this;
    auto sameID = [&](const std::string& id) {
        return std::ranges::equal(id, zoomID, [](char a, char b) {
            return std::toupper(static_cast<unsigned char>(a)) == std::toupper(static_cast<unsigned char>(b));
        });
    };
    std::erase_if(copy.zooms, [&](const ZoomBlock& z) { return sameID(z.id); });
    return copy;
}

EditPlan EditPlan::playing(bool deadAirSpedUp) const
{
    EditPlan copy = *this;
    if (!deadAirSpedUp)
        for (SkipDecision& skip : copy.skips)
            skip.keep = true;
    return copy;
}

} // namespace plim
