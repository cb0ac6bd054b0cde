#pragma once
// Mixes a SoundMix into blocks of output sound: the recording's pieces at normal
// speed, its sped-up stretches time-stretched with librubberband (pitch kept), voiceovers
// at unit gain with the recording ducked under them (linear ramps of rampFrames() on both
// sides; where voices overlap the lower gain wins), every sample clamped to [-1, 1].
//
// Thread contract: used from one thread (the render thread); the sources too.

#include "base/error.h"
#include "media/pcm_source.h"
#include "media/sound_mix.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace plim {

class SoundMixer {
public:
    struct Block {
        int64_t start = 0;          // first output frame
        std::vector<float> samples; // interleaved stereo
    };

    // `plimSound` is null when the recording's sound is not included.
    SoundMixer(SoundMix plan, std::shared_ptr<PCMSource> plimSound,
        std::map<int, std::shared_ptr<PCMSource>> voices);
    ~SoundMixer();
    SoundMixer(const SoundMixer&) = delete;
    SoundMixer& operator=(const SoundMixer&) = delete;

    // The next block of at most `maxFrames` frames; nothing once totalFrames are mixed. A
    // source that fails gives its sentence.
    Result<std::optional<Block>> next(int64_t maxFrames);

    int64_t framesMixed() const { return m_framesMixed; }
    // Mixes on from output frame `frame` (a player's seek).
    void seek(int64_t frame) { m_framesMixed = std::clamp<int64_t>(frame, 0, m_plan.totalFrames); }
    const SoundMix& plan() const { return m_plan; }

private:
    struct StretchCache;
    // The stretched sound of the segment of stretch `index` that holds output `frame`.
    Result<const std::vector<float>*> stretched(std::size_t index, int64_t frame);

    SoundMix m_plan;
    std::shared_ptr<PCMSource> m_plimSound;
    std::map<int, std::shared_ptr<PCMSource>> m_voices;
    int64_t m_framesMixed = 0;
    std::unique_ptr<StretchCache> m_stretch;
};

} // namespace plim
