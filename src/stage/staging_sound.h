#pragma once
// The sound path of a render: the recording's sound cut and stretched with the edit and the
// voiceovers, mixed and handed to the sink in blocks, ahead of the pictures. Private to stage/.
//
// Threads: open() runs on the caller's thread before the writer starts; feedUntil() then
// runs on the encode thread only (a player's sound thread calls next() and seek()).

#include "media/sound_mixer.h"
#include "stage/staging_engine.h"
#include "stage/video_sink.h"

#include <memory>

namespace plim {

struct StagingSetup;

class StagingSound {
public:
    // The render's sound, or null when it has none (a GIF, or no sound and no voiceover).
    // The recording's sound opens here, before the writer and before any picture is in
    // flight (its probe decodes a picture of its own); sound that cannot be read fails.
    static Result<std::unique_ptr<StagingSound>> open(const StagingJob& job, const StagingSetup& setup);

    // Mixes and appends sound to `sink` until output frame `until` (or the mix's end). A
    // mixer or sink failure comes back with its sentence for the user.
    Status feedUntil(VideoSink& sink, int64_t until);
    // Until output second `seconds`.
    Status feedUntil(VideoSink& sink, double seconds);
    // The mix's next block of at most `frames` frames, for a player; nothing at its end.
    Result<std::optional<SoundMixer::Block>> next(int64_t frames) { return m_mixer->next(frames); }
    // Plays on from output second `seconds`.
    void seek(double seconds);
    int64_t totalFrames() const { return m_mixer->plan().totalFrames; }

    // All that is left of the mix.
    Status feedAll(VideoSink& sink) { return feedUntil(sink, m_mixer->plan().totalFrames); }

private:
    StagingSound(const StagingJob& job, std::unique_ptr<SoundMixer> mixer) : m_job(job), m_mixer(std::move(mixer)) {}

    const StagingJob& m_job;
    std::unique_ptr<SoundMixer> m_mixer;
};

} // namespace plim
