#include "plan/share_audio_plan.h"

#include "plan/plan.h"

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

// A rate step that really changes the speed (others play at speed 1 in the timeline).
bool changesSpeed(const RemapStep& step)
{
    double r = step.mode.r;
    return std::isfinite(r) && r > 0 && std::abs(r - 1) > 1e-6;
}

} // namespace

SoundMix planShareAudio(const EditPlan& editPlan, double rawDuration, const std::vector<VoiceoverSlot>& voiceovers,
    bool includesPlimSound, double sampleRate)
{
    using Piece = SoundMix::Piece;
    using Stretch = SoundMix::Stretch;
    using Voice = SoundMix::Voice;
    SoundMix out;
    out.sampleRate = sampleRate;
    ClipTimeline timeline = editPlan.clipTimeline(rawDuration);

    std::vector<IdleSpan> idle;
    std::vector<double> idleRate;
    for (const auto& step : timeline.rates) // already in order of start (stable)
        if (changesSpeed(step)) {
            idle.push_back(step.span);
            idleRate.push_back(step.mode.r);
        }

    auto at = [&](double seconds) { return SoundMix::frames(seconds, sampleRate); };
    for (std::size_t p = 0; includesPlimSound && p < timeline.pieces.size(); ++p) {
        const auto& piece = timeline.pieces[p];
        int64_t pieceEnd = at(piece.outEnd);
        auto outAt = [&](double raw) { return *timeline.outputTimeIn(p, raw); };

        // Kept stretches: the piece between its sped-up spans, at normal speed.
        double cursor = piece.rawStart;
        auto keep = [&](double a, double b) {
            if (b - a <= 1e-6)
                return;
            double outA = outAt(a);
            int64_t outStart = at(outA);
            int64_t count = std::max<int64_t>(at(outAt(b) - outA), 0);
            count = std::min(count, pieceEnd - outStart);
            if (count > 0)
                out.pieces.push_back(Piece{at(a), outStart, count});
        };
        for (std::size_t i = 0; i < idle.size(); ++i) {
            double a = std::max(idle[i].start, piece.rawStart);
            double b = std::min(idle[i].end, piece.rawEnd);
            if (b - a <= 1e-6)
                continue;
            keep(cursor, a);
            double outA = outAt(a);
            int64_t outStart = at(outA);
            int64_t count = std::min(std::max<int64_t>(at(outAt(b) - outA), 0), pieceEnd - outStart);
            if (count > 0)
                out.stretches.push_back(Stretch{at(a), at(b - a), outStart, count, idleRate[i]});
            cursor = std::max(cursor, b);
        }
        keep(cursor, piece.rawEnd);
    }

    for (std::size_t i = 0; i < voiceovers.size(); ++i) {
        const auto& v = voiceovers[i];
        out.voices.push_back(Voice{static_cast<int>(i), at(v.start), at(v.duration), static_cast<float>(v.micUnder)});
    }
    out.totalFrames = at(timeline.outputDuration());
    return out;
}

} // namespace plim
