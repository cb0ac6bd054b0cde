#include "plan/plim_clip.h"

#include "plan/edit_plan_fields.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace plim {

namespace {

double effectiveRate(const RemapStep& step)
{
    return std::isfinite(step.mode.r) && step.mode.r > 0 ? step.mode.r : 1.0;
}

} // namespace

std::string PlimClip::idForNumber(long long number)
{
    number = std::clamp(number, 0LL, 999'999'999'999LL);
    char text[48];
    std::snprintf(text, sizeof text, "7A4E0C11-0000-4000-8000-%012lld", number);
    return text;
}

std::optional<PlimClip> PlimClip::sanitized(double rawDuration) const
{
    if (!std::isfinite(rawDuration) || rawDuration <= 0 || !std::isfinite(start) || !std::isfinite(end))
        return std::nullopt;
    PlimClip clip = *this;
    clip.start = std::clamp(start, 0.0, rawDuration);
    clip.end = std::clamp(end, 0.0, rawDuration);
    if (clip.end - clip.start <= timeEpsilon)
        return std::nullopt;
    return clip;
}

Json PlimClip::toJson() const
{
    return Json{{"id", id}, {"start", start}, {"end", end}};
}

std::optional<PlimClip> PlimClip::fromJson(const Json& value)
{
    if (!value.is_object())
        return std::nullopt;
    auto id = plan_fields::uuid(value, "id");
    auto start = jsonNumber(value, "start");
    auto end = jsonNumber(value, "end");
    if (!id || !start || !end)
        return std::nullopt;
    return PlimClip{*id, *start, *end};
}

std::vector<PlimClip> sanitizeClips(const std::vector<PlimClip>& clips, double rawDuration)
{
    std::vector<PlimClip> out;
    for (const auto& clip : clips)
        if (auto kept = clip.sanitized(rawDuration))
            out.push_back(std::move(*kept));
    return out;
}

namespace {

// Output seconds that raw [a, b] lasts under the rate steps (sorted by start; where steps
// overlap, the earlier one rules).
double playedLength(const std::vector<RemapStep>& rates, double a, double b)
{
    double out = 0;
    double cursor = a;
    for (const auto& step : rates) {
        double s = std::max(step.span.start, cursor);
        double e = std::min(step.span.end, b);
        if (e <= s)
            continue;
        out += s - cursor;
        out += (e - s) / effectiveRate(step);
        cursor = e;
        if (cursor >= b)
            break;
    }
    return out + std::max(0.0, b - cursor);
}

// The raw time in [a, b] reached after `played` output seconds.
double rawAfter(const std::vector<RemapStep>& rates, double a, double b, double played)
{
    double cursor = a;
    double left = played;
    for (const auto& step : rates) {
        double s = std::max(step.span.start, cursor);
        double e = std::min(step.span.end, b);
        if (e <= s)
            continue;
        if (left <= s - cursor)
            return cursor + left;
        left -= s - cursor;
        double r = effectiveRate(step);
        if (left <= (e - s) / r)
            return s + left * r;
        left -= (e - s) / r;
        cursor = e;
        if (cursor >= b)
            break;
    }
    return std::min(b, cursor + left);
}

} // namespace

ClipTimeline ClipTimeline::make(const std::vector<PlimClip>& stretches, const std::vector<RemapStep>& steps,
    double rawDuration)
{
    ClipTimeline timeline;
    timeline.rawDuration = rawDuration;
    for (const auto& step : steps)
        if (!step.mode.isCut() && std::isfinite(step.span.start) && std::isfinite(step.span.end)
            && step.span.end > step.span.start)
            timeline.rates.push_back(step);
    std::stable_sort(timeline.rates.begin(), timeline.rates.end(),
        [](const RemapStep& a, const RemapStep& b) { return a.span.start < b.span.start; });

    double out = 0;
    for (auto& clip : sanitizeClips(stretches, rawDuration)) {
        double length = playedLength(timeline.rates, clip.start, clip.end);
        timeline.pieces.push_back(Piece{std::move(clip.id), clip.start, clip.end, out, out + length});
        out += length;
    }
    return timeline;
}

double ClipTimeline::outputDuration() const
{
    return pieces.empty() ? 0.0 : pieces.back().outEnd;
}

std::vector<ClipTimeline::Pass> ClipTimeline::passes() const
{
    std::vector<Pass> out;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        const Piece& piece = pieces[i];
        if (!out.empty() && std::fabs(out.back().rawEnd - piece.rawStart) <= timeEpsilon) {
            out.back().rawEnd = piece.rawEnd;
            out.back().pieces.push_back(i);
        } else {
            out.push_back(Pass{piece.rawStart, piece.rawEnd, {i}});
        }
    }
    return out;
}

std::optional<double> ClipTimeline::outputTime(double raw) const
{
    if (!std::isfinite(raw))
        return std::nullopt;
    for (const auto& piece : pieces)
        if (piece.rawStart <= raw && raw < piece.rawEnd)
            return piece.outStart + playedLength(rates, piece.rawStart, raw);
    for (const auto& piece : pieces)
        if (std::fabs(raw - piece.rawEnd) <= timeEpsilon)
            return piece.outEnd;
    return std::nullopt;
}

std::optional<double> ClipTimeline::outputTimeIn(std::size_t index, double raw) const
{
    if (index >= pieces.size() || std::isnan(raw))
        return std::nullopt;
    const Piece& piece = pieces[index];
    double clamped = std::clamp(raw, piece.rawStart, piece.rawEnd);
    return piece.outStart + playedLength(rates, piece.rawStart, clamped);
}

std::optional<std::size_t> ClipTimeline::pieceAt(double output) const
{
    if (!std::isfinite(output))
        return std::nullopt;
    for (std::size_t i = 0; i < pieces.size(); ++i)
        if (pieces[i].outStart <= output && output < pieces[i].outEnd)
            return i;
    return std::nullopt;
}

std::optional<double> ClipTimeline::rawTime(double output) const
{
    if (pieces.empty() || std::isnan(output))
        return std::nullopt;
    if (output <= 0)
        return pieces.front().rawStart;
    auto index = pieceAt(output);
    if (!index)
        return pieces.back().rawEnd;
    const Piece& piece = pieces[*index];
    return rawAfter(rates, piece.rawStart, piece.rawEnd, output - piece.outStart);
}

} // namespace plim
