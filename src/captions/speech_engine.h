#pragma once
// The speech-engine seam: 16 kHz mono float samples in, recognised words with their times
// out. Backends: speech_engine_pocketsphinx.cpp (the built-in recogniser, PocketSphinx
// with Debian's US English model), speech_engine_whisper.cpp (the Whisper engine's
// segments through WhisperWordMapper) and speech_engine_scripted.cpp (tests).
//
// Thread and timing contract:
// - transcribe() is called on a worker thread of a transcription pass (transcription_pass.h),
//   one call at a time per engine object, and may run for minutes. It blocks until it has
//   every word, fails, or sees `stop`.
// - `stop` is polled at least every half second of work; once it is set the call returns
//   soon (its result is ignored: the pass has already ended). An engine that cannot return
//   is left behind by the pass, which keeps the engine and the samples alive until it does.
// - `progress` (fraction 0...1 of the samples done) is called from that worker thread,
//   never after transcribe() returns; it must be quick.
// - Word times are seconds from the first sample, in time order, not overlapping.

#include "captions/caption_error.h"
#include "captions/caption_lines.h"
#include "captions/whisper_segments.h"

#include <atomic>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace plim {

inline constexpr int speechSampleRate = 16000;

using SpeechWords = std::expected<std::vector<SpokenWord>, CaptionError>;

class SpeechEngine {
public:
    using Progress = std::function<void(double fraction)>;

    virtual ~SpeechEngine() = default;

    virtual CaptionEngineKind kind() const = 0;

    // The words spoken in `samples` (16 kHz mono, -1...1), which last `duration` seconds
    // of the plim (words past it are dropped). Errors are caption errors: `unavailable`
    // when the engine's model will not load, `failed` with a reason phrase otherwise.
    virtual SpeechWords transcribe(std::span<const float> samples, double duration, const Progress& progress,
        StopToken stop) = 0;
};

// PocketSphinx for `language` ("en", "en-US", "en_us": US English, the one model Debian
// ships), its model under `modelRoot`. Fails `unavailable` when there is no model for the
// language there. Cheap: the model is loaded by each transcribe().
std::expected<std::shared_ptr<SpeechEngine>, CaptionError> pocketSphinxEngine(const std::string& language,
    const std::filesystem::path& modelRoot = "/usr/share/pocketsphinx/model");

// True for a language code plimctl takes: two or three letters, optionally a region
// ("en", "pt-BR", "en_US").
bool isLanguageCode(std::string_view code);

// The Whisper engine behind this seam: `run` gives the segments for the samples, which
// are mapped to words with WhisperWordMapper over the plim's duration. Errors from `run`
// are the engine's (a reason phrase in `failed`).
using WhisperRun = std::function<std::expected<std::vector<WhisperSegment>, CaptionError>(
    std::span<const float> samples, const SpeechEngine::Progress& progress, StopToken stop)>;
std::shared_ptr<SpeechEngine> whisperSpeechEngine(WhisperRun run);

// A stand-in for tests: answers with `words` after `delay` seconds (watching the stop
// flag meanwhile), or fails with `error`, or never answers (until stopped, or not even
// then when `ignoresStop`). Counts its calls.
struct ScriptedSpeech {
    CaptionEngineKind kind = CaptionEngineKind::builtIn;
    std::vector<SpokenWord> words;
    std::optional<CaptionError> error;
    double delay = 0;
    bool neverAnswers = false;
    bool ignoresStop = false; // with neverAnswers: keeps running 2 s past a stop
};
class ScriptedSpeechEngine final : public SpeechEngine {
public:
    explicit ScriptedSpeechEngine(ScriptedSpeech script) : m_script(std::move(script)) {}
    CaptionEngineKind kind() const override { return m_script.kind; }
    SpeechWords transcribe(std::span<const float> samples, double duration, const Progress& progress,
        StopToken stop) override;
    int calls() const { return m_calls.load(); }
    size_t samplesSeen() const { return m_samples.load(); }

private:
    ScriptedSpeech m_script;
    std::atomic<int> m_calls{0};
    std::atomic<size_t> m_samples{0};
};

} // namespace plim
