// A sound device for tests: plays at the real rate on the steady clock, from the first
// frame written, and keeps every frame it was given.

#include "stage/sound_output.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace plim {

namespace {

double steadyNow()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

constexpr double queueSeconds = 0.2;

} // namespace

Status ScriptedSoundOutput::open(int rate, int channels)
{
    if (rate <= 0 || channels <= 0)
        return fail("The sound output cannot play " + std::to_string(rate) + " frames a second of "
            + std::to_string(channels) + " channels; the preview plays without sound.");
    std::lock_guard lock(m_mutex);
    m_rate = rate;
    m_channels = channels;
    m_written = m_playedBefore = 0;
    m_runStart = -1;
    m_received.clear();
    return {};
}

int64_t ScriptedSoundOutput::playedLocked() const
{
    if (m_runStart < 0)
        return m_playedBefore;
    const auto run = static_cast<int64_t>((steadyNow() - m_runStart) * m_rate);
    return std::min(m_written, m_playedBefore + std::max<int64_t>(run, 0));
}

Status ScriptedSoundOutput::write(const float* samples, int64_t frames)
{
    for (;;) {
        {
            std::lock_guard lock(m_mutex);
            const int64_t played = playedLocked();
            if (played >= m_written || m_runStart < 0) {
                // Nothing left to play (or not started): the device starts again from here.
                m_playedBefore = played;
                m_runStart = m_paused ? -1 : steadyNow();
            }
            if (m_paused || m_written - played < static_cast<int64_t>(queueSeconds * m_rate)) {
                m_received.insert(m_received.end(), samples, samples + frames * m_channels);
                m_written += frames;
                return {};
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void ScriptedSoundOutput::setPaused(bool paused)
{
    std::lock_guard lock(m_mutex);
    if (paused == m_paused)
        return;
    m_playedBefore = playedLocked();
    m_paused = paused;
    m_runStart = paused ? -1 : steadyNow();
}

void ScriptedSoundOutput::flush()
{
    std::lock_guard lock(m_mutex);
    m_written = m_playedBefore = 0;
    m_runStart = -1;
}

int64_t ScriptedSoundOutput::playedFrames() const
{
    std::lock_guard lock(m_mutex);
    return playedLocked();
}

int64_t ScriptedSoundOutput::writtenFrames() const
{
    std::lock_guard lock(m_mutex);
    return m_written;
}

std::vector<float> ScriptedSoundOutput::received() const
{
    std::lock_guard lock(m_mutex);
    return m_received;
}

} // namespace plim
