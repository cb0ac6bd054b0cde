#include "plan/zoom_curve.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace plim {

namespace {

constexpr double pi = std::numbers::pi;
// 1 − 2^−10: what an exponential ease reaches at its end, divided out so it ends at 1.
constexpr double expoReach = 0.9990234375;
// Overshooting ease: how far past the target it swings.
constexpr double backSwing = 1.70158;
constexpr double backSwingPlusOne = 2.70158;
// Share of a straight-line move mixed into the drift's sine.
constexpr double driftLinearShare = 0.45;

double sineInOut(double u) { return (1 - std::cos(pi * u)) / 2; }
double cubicOut(double u) { return 1 - std::pow(1 - u, 3); }
double cubicInOut(double u) { return u < 0.5 ? 4 * u * u * u : 1 - std::pow(-2 * u + 2, 3) / 2; }
double quadOut(double u) { return 1 - (1 - u) * (1 - u); }
double expoOut(double u) { return (1 - std::exp2(-10 * u)) / expoReach; }
double expoInOut(double u)
{
    auto half = [](double v) { return (std::exp2(20 * v - 10) - std::exp2(-10.0)) / (2 * expoReach); };
    return u < 0.5 ? half(u) : 1 - half(1 - u);
}
double backOut(double u)
{
    double v = u - 1;
    return 1 + backSwingPlusOne * v * v * v + backSwing * v * v;
}
// Two decaying swings around the target (4π: two full periods over the move), settled at u = 1.
double springOut(double u) { return 1 - std::cos(4 * pi * u) * std::pow(1 - u, 3) * std::exp(-4 * u); }
double drift(double u) { return driftLinearShare * u + (1 - driftLinearShare) * sineInOut(u); }

struct Sanitized {
    double start, end;
    ZoomState state;
    ZoomStyle style;
};

double clampUnit(double v) { return std::isfinite(v) ? std::clamp(v, 0.0, 1.0) : 0.5; }

ZoomState blend(const ZoomState& from, const ZoomState& to, double progress)
{
    // Scale moves evenly in log space, so zooming in and out feel alike; the centre never
    // swings past its target.
    double logScale = std::log(from.scale) + (std::log(to.scale) - std::log(from.scale)) * progress;
    double c = std::clamp(progress, 0.0, 1.0);
    return ZoomState{std::exp(logScale), from.centerX + (to.centerX - from.centerX) * c,
        from.centerY + (to.centerY - from.centerY) * c};
}

} // namespace

ZoomCurve::Timing ZoomCurve::timing(ZoomStyle style)
{
    switch (style) {
    case ZoomStyle::smooth: return {0.5, 0.5};
    case ZoomStyle::snappy: return {0.22, 0.22};
    case ZoomStyle::glide: return {0.8, 0.8};
    case ZoomStyle::bouncy: return {0.55, 0.4};
    case ZoomStyle::instant: return {0.12, 0.12};
    case ZoomStyle::linear: return {0.4, 0.4};
    case ZoomStyle::whip: return {0.3, 0.3};
    case ZoomStyle::spring: return {0.7, 0.5};
    case ZoomStyle::drift: return {1.1, 1.1};
    case ZoomStyle::cut: return {1.0 / 60, 1.0 / 60};
    }
    return {0.5, 0.5};
}

double ZoomCurve::ease(ZoomStyle style, bool entering, double u)
{
    u = std::clamp(u, 0.0, 1.0);
    switch (style) {
    case ZoomStyle::smooth: return sineInOut(u);
    case ZoomStyle::snappy: return cubicOut(u);
    case ZoomStyle::glide: return expoOut(u);
    case ZoomStyle::bouncy: return entering ? backOut(u) : cubicInOut(u);
    case ZoomStyle::instant: return quadOut(u);
    case ZoomStyle::linear: return u;
    case ZoomStyle::whip: return expoInOut(u);
    case ZoomStyle::spring: return entering ? springOut(u) : sineInOut(u);
    case ZoomStyle::drift: return drift(u);
    case ZoomStyle::cut: return u;
    }
    return u;
}

ZoomCurve::ZoomCurve(std::vector<ZoomBlock> blocks, ZoomStyle style)
    : m_blocks(std::move(blocks)), m_style(style)
{
    std::vector<Sanitized> spans;
    for (const ZoomBlock& block : m_blocks) {
        if (!std::isfinite(block.start) || !std::isfinite(block.end) || !(block.end - block.start > 1e-6))
            continue;
        if (!std::isfinite(block.scale) || !(block.scale > 0))
            continue;
        ZoomStyle own = style;
        if (block.style)
            own = zoomStyleFromText(*block.style).value_or(style);
        spans.push_back({block.start, block.end,
            ZoomState{block.scale, clampUnit(block.centerX), clampUnit(block.centerY)}, own});
    }
    std::stable_sort(spans.begin(), spans.end(), [](const Sanitized& a, const Sanitized& b) { return a.start < b.start; });
    std::vector<Sanitized> kept;
    for (const Sanitized& span : spans) {
        if (!kept.empty() && span.start < kept.back().end) {
            kept.back().end = span.start;
            if (!(kept.back().end - kept.back().start > 1e-6))
                kept.pop_back();
        }
        kept.push_back(span);
    }

    size_t n = kept.size();
    for (size_t i = 0; i < n; ++i) {
        const Sanitized& block = kept[i];
        bool handsOver = i + 1 < n && kept[i + 1].start - block.end < handoverGap;
        bool takesOver = i > 0 && block.start - kept[i - 1].end < handoverGap;
        Timing t = timing(block.style);
        double leadIn = t.leadIn;
        double leadOut = handsOver ? 0.0 : t.leadOut;
        double length = block.end - block.start;
        if (leadIn + leadOut > length) {
            double k = length / (leadIn + leadOut);
            leadIn *= k;
            leadOut *= k;
        }
        ZoomState from = takesOver ? kept[i - 1].state : ZoomState::identity();
        m_moves.push_back({block.start, block.start + leadIn, from, block.state, block.style, true});
        if (!handsOver)
            m_moves.push_back({block.end - leadOut, block.end, block.state, ZoomState::identity(), block.style, false});
    }
}

ZoomState ZoomCurve::state(double at) const
{
    if (!std::isfinite(at) || m_moves.empty())
        return ZoomState::identity();
    auto next = std::upper_bound(m_moves.begin(), m_moves.end(), at, [](double t, const Move& m) { return t < m.t0; });
    if (next == m_moves.begin())
        return ZoomState::identity();
    const Move& move = *(next - 1);
    if (at >= move.t1 || !(move.t1 > move.t0))
        return move.to;
    double u = (at - move.t0) / (move.t1 - move.t0);
    return blend(move.from, move.to, ease(move.style, move.entering, u));
}

} // namespace plim
