#include "media/sound_mixer.h"

#include <rubberband/RubberBandStretcher.h>

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

// A long sped-up stretch is stretched in pieces of this much recorded sound, so memory
// stays bounded (a join every minute of recording is not audible in idle stretches).
constexpr double stretchSegmentSeconds = 60;
constexpr int64_t stretchBlock = 8192;

// Rubberband's diagnostics (it reports adjusting its own hop while draining a stretch)
// are not the user's business; they would otherwise go to standard error.
struct QuietLogger : RubberBand::RubberBandStretcher::Logger {
    void log(const char*) override {}
    void log(const char*, double) override {}
    void log(const char*, double, double) override {}
};

// Time-stretches interleaved stereo `input` to exactly `outFrames` frames, pitch kept.
std::vector<float> timeStretch(const std::vector<float>& input, int64_t outFrames, double sampleRate)
{
    int64_t inFrames = static_cast<int64_t>(input.size() / 2);
    std::vector<float> out;
    out.reserve(2 * static_cast<size_t>(outFrames));
    if (inFrames > 0 && outFrames > 0) {
        using RubberBand::RubberBandStretcher;
        RubberBandStretcher stretcher(static_cast<size_t>(sampleRate), 2, std::make_shared<QuietLogger>(),
            RubberBandStretcher::OptionProcessOffline,
            static_cast<double>(outFrames) / static_cast<double>(inFrames), 1.0);
        stretcher.setExpectedInputDuration(static_cast<size_t>(inFrames));
        stretcher.setMaxProcessSize(static_cast<size_t>(stretchBlock));
        std::vector<float> left(static_cast<size_t>(stretchBlock)), right(static_cast<size_t>(stretchBlock));
        // Interleaves whatever the stretcher has ready onto `out`.
        auto drain = [&] {
            for (int ready; (ready = stretcher.available()) > 0;) {
                std::vector<float> l(static_cast<size_t>(ready)), r(static_cast<size_t>(ready));
                float* outs[2] = {l.data(), r.data()};
                size_t got = stretcher.retrieve(outs, static_cast<size_t>(ready));
                for (size_t i = 0; i < got; ++i) {
                    out.push_back(l[i]);
                    out.push_back(r[i]);
                }
            }
        };
        auto feed = [&](bool study) {
            for (int64_t at = 0; at < inFrames; at += stretchBlock) {
                int64_t n = std::min(stretchBlock, inFrames - at);
                for (int64_t i = 0; i < n; ++i) {
                    left[static_cast<size_t>(i)] = input[static_cast<size_t>(2 * (at + i))];
                    right[static_cast<size_t>(i)] = input[static_cast<size_t>(2 * (at + i) + 1)];
                }
                const float* planes[2] = {left.data(), right.data()};
                bool final = at + n >= inFrames;
                if (study)
                    stretcher.study(planes, static_cast<size_t>(n), final);
                else
                    stretcher.process(planes, static_cast<size_t>(n), final);
                // Take what is ready as it comes, so the stretcher's buffers stay small.
                if (!study)
                    drain();
            }
        };
        feed(true);
        feed(false);
        drain();
    }
    out.resize(2 * static_cast<size_t>(outFrames), 0.0f);
    return out;
}

} // namespace

int64_t SoundMix::frames(double seconds, double sampleRate)
{
    double f = std::round(seconds * sampleRate);
    return std::isfinite(f) ? static_cast<int64_t>(f) : 0;
}

int64_t SoundMix::rampFrames() const
{
    return std::max<int64_t>(frames(0.15, sampleRate), 1);
}

bool SoundMix::touchesAVoice(int64_t from, int64_t to) const
{
    int64_t margin = rampFrames();
    return std::any_of(voices.begin(), voices.end(), [&](const Voice& v) {
        return v.outStart - margin < to && from < v.outStart + v.count + margin;
    });
}

// The stretched sound of one segment of one sped-up stretch, kept while blocks use it.
struct SoundMixer::StretchCache {
    std::size_t stretch = SIZE_MAX;
    int64_t segment = -1;
    int64_t outStart = 0; // output frame of samples[0]
    std::vector<float> samples;
};

SoundMixer::SoundMixer(SoundMix plan, std::shared_ptr<PCMSource> plimSound,
    std::map<int, std::shared_ptr<PCMSource>> voices)
    : m_plan(std::move(plan))
    , m_plimSound(std::move(plimSound))
    , m_voices(std::move(voices))
    , m_stretch(std::make_unique<StretchCache>())
{
}

SoundMixer::~SoundMixer() = default;

Result<const std::vector<float>*> SoundMixer::stretched(std::size_t index, int64_t frame)
{
    const auto& s = m_plan.stretches[index];
    int64_t segmentRaw = std::max<int64_t>(SoundMix::frames(stretchSegmentSeconds, m_plan.sampleRate), 1);
    // Output frame where raw offset `raw` of the stretch lands.
    auto outOf = [&](int64_t raw) {
        return s.rawCount > 0 ? static_cast<int64_t>(std::llround(double(raw) * s.count / s.rawCount)) : 0;
    };
    int64_t local = frame - s.outStart;
    int64_t segment = 0;
    while (outOf((segment + 1) * segmentRaw) <= local && (segment + 1) * segmentRaw < s.rawCount)
        ++segment;
    StretchCache& cache = *m_stretch;
    if (cache.stretch != index || cache.segment != segment) {
        int64_t rawFrom = segment * segmentRaw;
        int64_t rawTo = std::min(s.rawCount, rawFrom + segmentRaw);
        auto input = PLIM_TRY(m_plimSound->read(s.rawStart + rawFrom, rawTo - rawFrom));
        int64_t outFrom = outOf(rawFrom);
        int64_t outTo = rawTo >= s.rawCount ? s.count : outOf(rawTo);
        cache.samples = timeStretch(input, outTo - outFrom, m_plan.sampleRate);
        cache.stretch = index;
        cache.segment = segment;
        cache.outStart = s.outStart + outFrom;
    }
    return &cache.samples;
}

Result<std::optional<SoundMixer::Block>> SoundMixer::next(int64_t maxFrames)
{
    if (m_framesMixed >= m_plan.totalFrames || maxFrames <= 0)
        return std::optional<Block>{};
    const int64_t start = m_framesMixed;
    const int64_t n = std::min(maxFrames, m_plan.totalFrames - start);
    const int64_t end = start + n;
    Block block{start, std::vector<float>(2 * static_cast<size_t>(n), 0.0f)};

    const double margin = static_cast<double>(m_plan.rampFrames());
    auto duck = [&](int64_t f) {
        double gain = 1;
        for (const auto& v : m_plan.voices) {
            int64_t vEnd = v.outStart + v.count;
            double d = f < v.outStart ? double(v.outStart - f) : f >= vEnd ? double(f - vEnd + 1) : 0.0;
            if (d < margin)
                gain = std::min(gain, v.micUnder + (1.0 - v.micUnder) * d / margin);
        }
        return gain;
    };
    const bool ducks = m_plan.touchesAVoice(start, end);
    // Adds recorded sound for output frames [lo, hi), `samples` holding frame lo first.
    auto addRecorded = [&](int64_t lo, int64_t hi, const float* samples) {
        for (int64_t f = lo; f < hi; ++f) {
            float gain = ducks ? static_cast<float>(duck(f)) : 1.0f;
            size_t o = static_cast<size_t>(2 * (f - start));
            size_t i = static_cast<size_t>(2 * (f - lo));
            block.samples[o] += gain * samples[i];
            block.samples[o + 1] += gain * samples[i + 1];
        }
    };

    if (m_plimSound) {
        for (const auto& piece : m_plan.pieces) {
            int64_t lo = std::max(start, piece.outStart), hi = std::min(end, piece.outStart + piece.count);
            if (hi <= lo)
                continue;
            auto samples = PLIM_TRY(m_plimSound->read(piece.rawStart + (lo - piece.outStart), hi - lo));
            addRecorded(lo, hi, samples.data());
        }
        for (std::size_t i = 0; i < m_plan.stretches.size(); ++i) {
            const auto& s = m_plan.stretches[i];
            int64_t lo = std::max(start, s.outStart), hi = std::min(end, s.outStart + s.count);
            while (hi > lo) {
                const std::vector<float>* seg = PLIM_TRY(stretched(i, lo));
                int64_t segEnd = m_stretch->outStart + static_cast<int64_t>(seg->size() / 2);
                int64_t upTo = std::min(hi, segEnd);
                if (upTo <= lo)
                    break;
                addRecorded(lo, upTo, seg->data() + 2 * (lo - m_stretch->outStart));
                lo = upTo;
            }
        }
    }

    for (const auto& v : m_plan.voices) {
        auto source = m_voices.find(v.index);
        if (source == m_voices.end() || !source->second)
            continue;
        int64_t lo = std::max(start, v.outStart), hi = std::min(end, v.outStart + v.count);
        if (hi <= lo)
            continue;
        auto samples = PLIM_TRY(source->second->read(lo - v.outStart, hi - lo));
        for (int64_t f = lo; f < hi; ++f) {
            size_t o = static_cast<size_t>(2 * (f - start));
            size_t i = static_cast<size_t>(2 * (f - lo));
            block.samples[o] += samples[i];
            block.samples[o + 1] += samples[i + 1];
        }
    }

    for (float& s : block.samples)
        s = std::isnan(s) ? 0.0f : std::clamp(s, -1.0f, 1.0f);
    m_framesMixed = end;
    return std::optional<Block>(std::move(block));
}

} // namespace plim
