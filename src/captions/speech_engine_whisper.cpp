#include "captions/speech_engine.h"

namespace plim {

namespace {

class WhisperSpeechEngine final : public SpeechEngine {
public:
    explicit WhisperSpeechEngine(WhisperRun run) : m_run(std::move(run)) {}
    CaptionEngineKind kind() const override { return CaptionEngineKind::whisper; }
    SpeechWords transcribe(std::span<const float> samples, double duration, const Progress& progress,
        StopToken stop) override
    {
        auto segments = m_run(samples, progress, stop);
        if (!segments)
            return std::unexpected(std::move(segments.error()));
        return WhisperWordMapper::segments(*segments, duration);
    }

private:
    WhisperRun m_run;
};

} // namespace

std::shared_ptr<SpeechEngine> whisperSpeechEngine(WhisperRun run)
{
    return std::make_shared<WhisperSpeechEngine>(std::move(run));
}

} // namespace plim
