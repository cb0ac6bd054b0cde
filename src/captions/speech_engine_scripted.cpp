#include "captions/speech_engine.h"

#include <chrono>
#include <thread>

namespace plim {

SpeechWords ScriptedSpeechEngine::transcribe(std::span<const float> samples, double, const Progress& progress,
    StopToken stop)
{
    ++m_calls;
    m_samples = samples.size();
    using Clock = std::chrono::steady_clock;
    const auto step = std::chrono::milliseconds(10);
    if (m_script.neverAnswers) {
        while (!stop.stop_requested())
            std::this_thread::sleep_for(step);
        if (m_script.ignoresStop)
            std::this_thread::sleep_for(std::chrono::seconds(2));
        return std::unexpected(CaptionError::cancelled());
    }
    const auto until = Clock::now() + std::chrono::duration<double>(m_script.delay);
    while (Clock::now() < until) {
        if (stop.stop_requested())
            return std::unexpected(CaptionError::cancelled());
        std::this_thread::sleep_for(step);
    }
    if (progress)
        progress(1.0);
    if (m_script.error)
        return std::unexpected(*m_script.error);
    return m_script.words;
}

} // namespace plim
