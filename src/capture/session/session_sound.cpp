// The session's sound routing: the microphone through the array-mic treatment to its mono
// track, the computer's sound as it comes to its stereo track, both onto the writer's queue
// at their track times.

#include "capture/session/session_state.h"

#include "base/log.h"

namespace plim {

using namespace session;

void CaptureSession::Impl::startSound()
{
    if (devices.microphone) {
        if (auto started = devices.microphone->start([this](SoundBlock&& b) { onSound(SoundSource::Kind::microphone, std::move(b)); }); !started) {
            logLine(LogArea::main, started.error().sentence);
        }
    }
    if (devices.systemSound) {
        if (auto started = devices.systemSound->start([this](SoundBlock&& b) { onSound(SoundSource::Kind::systemSound, std::move(b)); }); !started)
            logLine(LogArea::main, "ScreenCaptureKit refused the system-audio output (" + started.error().sentence
                    + "); the plim rolls without the computer's sound.");
    }
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
            if (pauses.pausedAt(block.uptime))
                return; // the treatment's clock stands still while paused
        }
        ArrayMic::Buffer buffer{std::move(block.samples), block.channels, block.sampleRate};
        buffer = treatment.treated(std::move(buffer));
        samples = buffer.channels == 1 ? std::move(buffer.samples) : ArrayMic::downmixedToMono(buffer).samples;
    } else {
        samples = std::move(block.samples);
    }
    double trackSeconds;
    {
        std::lock_guard guard(lock);
        if (ended || pauses.pausedAt(block.uptime))
            return;
        trackSeconds = trackSecondsAt(block.uptime);
    }
    QueueItem item = AudioItem{track, std::move(samples), trackSeconds};
    if (queue->push(item, std::chrono::milliseconds(0), 0) != BoundedQueue<QueueItem>::Wait::done) {
        std::lock_guard guard(lock);
        if (!ended)
            ++soundDropped;
    }
}

} // namespace plim
