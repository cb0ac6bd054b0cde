#include "stage/render_rules.h"

#include "plan/edit_plan.h"

#include <algorithm>
#include <cmath>

namespace plim::RenderRules {

int64_t slotOf(double outT, double fps)
{
    return static_cast<int64_t>(std::floor(fps * outT + 0.000001));
}

Pace pace(double outT, int64_t nextSlot, double fps)
{
    int64_t slot = slotOf(outT, fps);
    if (!std::isfinite(outT) || slot < nextSlot)
        return {false, nextSlot};
    return {true, slot + 1};
}

double pacedOutputTime(const ClipTimeline& timeline, std::size_t piece, double raw)
{
    const auto& p = timeline.pieces[piece];
    double played = timeline.outputTimeIn(piece, raw).value_or(p.outStart) - p.outStart;
    return std::min(p.outStart + std::max(0.0, played), p.outEnd);
}

std::vector<PacedFrame> pacedFrames(const ClipTimeline& timeline, double sourceFPS, double fps)
{
    std::vector<PacedFrame> taken;
    const double raw = timeline.rawDuration;
    if (!std::isfinite(raw) || !std::isfinite(sourceFPS) || sourceFPS <= 0 || !(fps > 0) || !std::isfinite(fps))
        return taken;
    const int64_t lastFrame = static_cast<int64_t>(std::floor(raw * sourceFPS)) - 1;
    int64_t nextSlot = 0;
    for (std::size_t i = 0; i < timeline.pieces.size(); ++i) {
        const auto& piece = timeline.pieces[i];
        int64_t first = std::max<int64_t>(0, static_cast<int64_t>(std::ceil(sourceFPS * piece.rawStart)));
        int64_t last = std::min(lastFrame, static_cast<int64_t>(std::ceil(sourceFPS * piece.rawEnd)) - 1);
        for (int64_t f = first; f <= last; ++f) {
            double t = static_cast<double>(f) / sourceFPS;
            if (t < piece.rawStart || t >= piece.rawEnd)
                continue;
            double outT = pacedOutputTime(timeline, i, t);
            Pace decision = pace(outT, nextSlot, fps);
            if (!decision.take)
                continue;
            taken.push_back({i, f, t, outT, decision.nextSlot - 1});
            nextSlot = decision.nextSlot;
        }
    }
    return taken;
}

int64_t expectedFrames(const ClipTimeline& timeline, double sourceFPS, double fps)
{
    auto taken = pacedFrames(timeline, sourceFPS, fps);
    if (taken.empty())
        return 0;
    int64_t filled = std::llround(fps * timeline.pieces.back().outEnd);
    return std::max(taken.back().slot + 1, filled);
}

int64_t expectedFrames(const EditPlan& plan, double rawDuration, double sourceFPS, double fps)
{
    if (!std::isfinite(rawDuration) || rawDuration <= 0)
        return 0;
    return expectedFrames(plan.clipTimeline(rawDuration), sourceFPS, fps);
}

double readTotal(const std::vector<ClipTimeline::Pass>& passes)
{
    double total = 0;
    for (const auto& pass : passes)
        total += std::max(0.0, pass.rawEnd - pass.rawStart);
    return total;
}

std::optional<Quality> qualityFromShortSide(int shortSide)
{
    switch (shortSide) {
    case 720: return Quality::p720;
    case 1080: return Quality::p1080;
    case 2160: return Quality::p2160;
    default: return std::nullopt;
    }
}

static int evenSide(double side)
{
    if (!std::isfinite(side))
        side = 1080;
    int even = static_cast<int>(std::floor(side / 2)) * 2;
    return std::max(even, 2);
}

PixelSize canvasSize(Quality quality, bool gif, std::optional<Size> recorded)
{
    double shortSide = static_cast<double>(static_cast<int>(quality)) * (gif ? 0.6 : 1.0);
    double width = shortSide * 16 / 9, height = shortSide;
    if (recorded && recorded->width >= 2 && recorded->height >= 2) {
        double a = recorded->width / recorded->height;
        if (a >= 1)
            width = shortSide * a, height = shortSide;
        else
            width = shortSide, height = shortSide / a;
    }
    return {evenSide(width), evenSide(height)};
}

} // namespace plim::RenderRules
