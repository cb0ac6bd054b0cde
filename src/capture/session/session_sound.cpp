// The session's sound routing: the microphone through the array-mic treatment to its mono
// track, the computer's sound as it comes to its stereo track, both onto the writer's queue
// at their track times.

#include "capture/session/session_state.h"

#include "base/log.h"

namespace plim {

using namespace session;

void CaptureSession::Impl::missing(const std::string& sentence)
{
    logLine(LogArea::main, sentence);
    if (options.onMissing)
        options.onMissing(sentence);
}

void CaptureSession::Impl::startSound(std::chrono::steady_clock::duration wait)
{
    int soundsStarted = 0;
    for (auto* sound : {devices.microphone.get(), devices.systemSound.get()}) {
        if (!sound)
            continue;
        auto kind = sound->kind();
        if (auto started = sound->start([this, kind](SoundBlock&& b) { onSound(kind, std::move(b)); }))
            ++soundsStarted;
        else
            missing(started.error().sentence);
    }
    std::unique_lock guard(lock);
    soundStarted.wait_for(guard, wait, [&] { return soundsFlowing >= soundsStarted; });
}

void CaptureSession::Impl::onSound(SoundSource::Kind kind, SoundBlock&& block)
{
    int track = kind == SoundSource::Kind::microphone ? micTrack : systemTrack;
    if (track < 0)
        return;
    std::vector<float> samples;
    if (kind == SoundSource::Kind::microphone) {
        {
            std::lock_guard guard(lock);
            if (pauses.pausedAt(block.uptime)) {
                soundBroken[track] = true;
                return; // the treatment's clock stands still while paused
            }
        }
        ArrayMic::Buffer buffer{std::move(block.samples), block.channels, block.sampleRate};
        buffer = treatment.treated(std::move(buffer));
        samples = buffer.channels == 1 ? std::move(buffer.samples) : ArrayMic::downmixedToMono(buffer).samples;
    } else {
        samples = std::move(block.samples);
    }
    double trackSeconds;
    bool first = false, joins = false, keep = false;
    {
        std::lock_guard guard(lock);
        if (!std::exchange(soundFlowed[track], true)) {
            ++soundsFlowing;
            first = true;
        }
        if (ended || pauses.pausedAt(block.uptime)) {
            soundBroken[track] = true;
        } else {
            joins = block.joinsPrevious && !std::exchange(soundBroken[track], false);
            keep = true;
        }
        trackSeconds = trackSecondsAt(block.uptime);
    }
    if (first)
        soundStarted.notify_all();
    if (!keep)
        return;
    QueueItem item = AudioItem{track, std::move(samples), trackSeconds, joins};
    if (queue->push(item, std::chrono::milliseconds(0), 0) != BoundedQueue<QueueItem>::Wait::done) {
        std::lock_guard guard(lock);
        if (!ended)
            ++soundDropped;
    }
}

} // namespace plim
