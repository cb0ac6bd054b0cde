#include "stage/staging_sound.h"

#include "media/media.h"
#include "plan/plan.h"
#include "stage/staging_setup.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace plim {

namespace {

constexpr int64_t soundBlock = 4800; // frames per mixer block (0.1 s)

} // namespace

Result<std::unique_ptr<StagingSound>> StagingSound::open(const StagingJob& job, const StagingSetup& s)
{
    if (job.gif || (!s.info.hasSound && job.voiceovers.empty()))
        return nullptr;
    std::shared_ptr<AssetPCMSource> movieSound;
    if (s.info.hasSound) {
        movieSound = std::make_shared<AssetPCMSource>(job.movie, "The plim's sound");
        PLIM_TRY(movieSound->open());
    }
    std::vector<VoiceoverSlot> slots;
    std::map<int, std::shared_ptr<PCMSource>> voices;
    for (const auto& voice : job.voiceovers) {
        voices[static_cast<int>(slots.size())] =
            std::make_shared<AssetPCMSource>(voice.held ? voice.held->reopenPath() : voice.file, voice.label);
        slots.push_back(voice.input);
    }
    auto mix = planShareAudio(job.plan, s.rawDuration, slots, s.info.hasSound, soundSampleRate);
    auto mixer = std::make_unique<SoundMixer>(std::move(mix), std::move(movieSound), std::move(voices));
    return std::unique_ptr<StagingSound>(new StagingSound(job, std::move(mixer)));
}

void StagingSound::seek(double seconds)
{
    m_mixer->seek(static_cast<int64_t>(std::llround(std::max(0.0, seconds) * soundSampleRate)));
}

Status StagingSound::feedUntil(VideoSink& sink, double seconds)
{
    return feedUntil(sink, static_cast<int64_t>(std::ceil(seconds * soundSampleRate)));
}

Status StagingSound::feedUntil(VideoSink& sink, int64_t until)
{
    while (m_mixer->framesMixed() < until) {
        auto block = m_mixer->next(std::min(soundBlock, until - m_mixer->framesMixed()));
        if (!block)
            return std::unexpected(block.error());
        if (!*block)
            return {};
        const auto& samples = (*block)->samples;
        auto appended = sink.appendAudio(samples.data(), static_cast<int64_t>(samples.size() / soundChannels),
            (*block)->start);
        if (!appended)
            return std::unexpected(stagingFailure(m_job, writerError(appended.error(), "the sound was refused")));
    }
    return {};
}

} // namespace plim
