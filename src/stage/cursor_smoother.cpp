#include "stage/cursor_smoother.h"

#include "capture/capture.h"

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

bool byTime(const CursorSmoother::Sample& a, const CursorSmoother::Sample& b) { return a.t < b.t; }

} // namespace

std::vector<CursorSmoother::Sample> CursorSmoother::samplesOf(const CursorTrack& track)
{
    const TrackPlacement place(track);
    std::vector<Sample> out;
    out.reserve(track.samples.size());
    for (const CursorSample& s : track.samples) {
        if (!std::isfinite(s.x) || !std::isfinite(s.y))
            continue;
        Point p = place.unitPoint(s.x, s.y, s.t);
        out.push_back(Sample{place.movieSeconds(s.t), p.x, p.y});
    }
    if (!std::ranges::is_sorted(out, byTime))
        std::ranges::stable_sort(out, byTime);
    return out;
}

CursorSmoother::CursorSmoother(const CursorTrack& track, double until, bool glide)
    : CursorSmoother(smoothing(samplesOf(track), until, glide))
{
}

CursorSmoother CursorSmoother::smoothing(std::vector<Sample> samples, double until, bool glide)
{
    std::erase_if(samples, [](const Sample& s) {
        return !std::isfinite(s.t) || !std::isfinite(s.x) || !std::isfinite(s.y);
    });
    if (!std::ranges::is_sorted(samples, byTime))
        std::ranges::stable_sort(samples, byTime);

    CursorSmoother smoother;
    if (samples.empty())
        return smoother;
    const double h = smoother.step;
    smoother.start = std::max(samples.front().t, 0.0);

    double last = samples.back().t;
    if (std::isfinite(until))
        last = std::min(last, until);
    double span = std::clamp(last + h - smoother.start, 0.0, longestSpan);
    // Whole ticks from the start to the end of the span, the start itself included.
    auto count = static_cast<size_t>(std::floor(span / h + 1e-9)) + 1;
    smoother.xs.resize(count);
    smoother.ys.resize(count);

    double px = samples.front().x, py = samples.front().y, vx = 0, vy = 0;
    size_t held = 0;
    for (size_t k = 0; k < count; ++k) {
        double tick = smoother.start + static_cast<double>(k) * h;
        while (held + 1 < samples.size() && samples[held + 1].t <= tick)
            ++held;
        if (glide) {
            CursorSpring::tick(px, vx, samples[held].x);
            CursorSpring::tick(py, vy, samples[held].y);
        } else if (held + 1 < samples.size() && tick >= samples[held].t) {
            const Sample& a = samples[held];
            const Sample& b = samples[held + 1];
            const double f = b.t > a.t ? (tick - a.t) / (b.t - a.t) : 0;
            px = a.x + (b.x - a.x) * f;
            py = a.y + (b.y - a.y) * f;
        } else {
            px = samples[held].x;
            py = samples[held].y;
        }
        smoother.xs[k] = px;
        smoother.ys[k] = py;
    }
    return smoother;
}

CursorSmoother::Point CursorSmoother::position(double t) const
{
    const size_t n = size();
    if (n == 0)
        return {0.5, 0.5};
    if (n < 2 || !std::isfinite(t) || !(step > 0) || !std::isfinite(start))
        return {xs[0], ys[0]};
    double i = std::clamp((t - start) / step, 0.0, static_cast<double>(n - 1));
    auto lo = static_cast<size_t>(i);
    size_t hi = std::min(lo + 1, n - 1);
    double f = i - static_cast<double>(lo);
    return {xs[lo] + (xs[hi] - xs[lo]) * f, ys[lo] + (ys[hi] - ys[lo]) * f};
}

} // namespace plim
