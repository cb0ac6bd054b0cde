#include "captions/caption_engine_router.h"

#include "base/log.h"
#include "base/settings.h"
#include "captions/caption_audio.h"
#include "captions/caption_model_store.h"
#include "captions/whisper_transcriber.h"
#include "captions/transcription_pass.h"

#include <cctype>
#include <cmath>
#include <mutex>

namespace plim {

namespace fs = std::filesystem;

namespace {

std::string_view readerName(CaptionEngineKind kind)
{
    return kind == CaptionEngineKind::whisper ? "Whisper" : "the built-in recognizer";
}

std::string withoutTrailingStops(std::string text)
{
    while (!text.empty() && (text.back() == '.' || text.back() == ' ' || text.back() == '\n' || text.back() == '\t'))
        text.pop_back();
    return text;
}

} // namespace

CaptionEngineRouter::CaptionEngineRouter(Parts parts) : m_parts(std::move(parts))
{
    if (!m_parts.deadline)
        m_parts.deadline = [](CaptionEngineKind kind, double duration) {
            return kind == CaptionEngineKind::whisper ? whisperDeadline(duration) : builtInDeadline(duration);
        };
    if (!m_parts.decode)
        m_parts.decode = [](const fs::path& movie, std::string_view reader, StopToken stop) {
            return CaptionAudio::monoSamples(movie, reader, stop);
        };
}

CaptionEngineKind CaptionEngineRouter::choose() const
{
    const bool on = m_parts.betterCaptions && m_parts.betterCaptions();
    return on && m_parts.modelReady && m_parts.modelReady() ? CaptionEngineKind::whisper : CaptionEngineKind::builtIn;
}

std::string CaptionEngineRouter::why(const CaptionError& error)
{
    if (error.kind == CaptionError::Kind::timedOut)
        return "it took longer than " + spelledTime(error.seconds);
    return withoutTrailingStops(error.sentence());
}

std::optional<std::string> CaptionEngineRouter::lastFallback() const
{
    std::lock_guard hold(m_lock);
    return m_lastFallback;
}

std::expected<CaptionEngineRouter::Pass, CaptionError> CaptionEngineRouter::run(std::shared_ptr<SpeechEngine> engine,
    const fs::path& movie, double duration, const Progress& progress, StopToken stop)
{
    const CaptionEngineKind kind = engine->kind();
    auto decoded = m_parts.decode(movie, readerName(kind), stop);
    if (!decoded) {
        if (decoded.error().kind == Error::Kind::stopped)
            return std::unexpected(CaptionError::cancelled());
        return std::unexpected(CaptionError::failed(decoded.error().sentence));
    }
    if (decoded->empty())
        return std::unexpected(CaptionError::noAudio());
    if (!std::isfinite(duration) || duration <= 0)
        duration = static_cast<double>(decoded->size()) / speechSampleRate;
    auto samples = std::make_shared<const std::vector<float>>(std::move(*decoded));
    auto words = TranscriptionPass::run(engine, samples, duration, m_parts.deadline(kind, duration),
        [&](double fraction) {
            if (progress)
                progress(kind, fraction);
        },
        stop);
    if (!words)
        return std::unexpected(std::move(words.error()));
    return Pass{CaptionTrack{captionLines(*words)}, kind, std::nullopt};
}

std::expected<CaptionEngineRouter::Pass, CaptionError> CaptionEngineRouter::transcribe(const fs::path& movie,
    double duration, const Progress& progress, StopToken stop, std::optional<CaptionEngineKind> first)
{
    std::optional<CaptionError> whisperFailed;
    if (first.value_or(choose()) == CaptionEngineKind::whisper) {
        if (!m_parts.whisper) {
            whisperFailed = CaptionError::failed("the Whisper engine is not part of this build of Plim");
        } else if (!(m_parts.modelReady && m_parts.modelReady())) {
            whisperFailed = CaptionError::failed(
                "the Whisper model has not been downloaded yet; plimctl captions-model download fetches it");
        } else {
            auto pass = run(m_parts.whisper, movie, duration, progress, stop);
            if (pass || pass.error().kind == CaptionError::Kind::cancelled)
                return pass;
            whisperFailed = pass.error();
        }
    }
    std::optional<std::string> notice;
    if (whisperFailed) {
        const std::string reason = why(*whisperFailed);
        logLine(LogArea::captions, "Better captions failed, using the built-in recognizer (" + reason + ")");
        notice = "Better captions ran into a problem (" + reason + "), so these captions came from the built-in recognizer.";
    }
    if (!m_parts.builtIn)
        return std::unexpected(CaptionError::unavailable());
    auto engine = m_parts.builtIn();
    if (!engine)
        return std::unexpected(std::move(engine.error()));
    auto pass = run(*engine, movie, duration, progress, stop);
    if (!pass) {
        // The built-in recogniser's own failures are told as whole sentences.
        if (pass.error().kind == CaptionError::Kind::failed)
            pass.error().detail = "The plim could not be captioned: " + withoutTrailingStops(pass.error().detail)
                + ". Nothing was written, so the previous captions stay; check that the plim plays, then try again.";
        return pass;
    }
    if (notice) {
        pass->notice = notice;
        std::lock_guard hold(m_lock);
        m_lastFallback = notice;
    }
    return pass;
}

namespace {

// The Whisper engine over the chosen model: loaded on first use and kept for later passes.
WhisperRun whisperOver(std::function<std::optional<fs::path>()> modelFolder, const std::string& language)
{
    struct Loaded {
        std::mutex lock;
        fs::path folder;
        std::unique_ptr<WhisperTranscriber> transcriber;
    };
    auto loaded = std::make_shared<Loaded>();
    // Whisper names languages by their two or three letters ("en" of "en-US").
    std::string code = language.substr(0, language.find_first_of("-_"));
    for (char& c : code)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return [loaded, code, modelFolder](std::span<const float> samples, const SpeechEngine::Progress& progress,
               StopToken stop) -> std::expected<std::vector<WhisperSegment>, CaptionError> {
        std::lock_guard guard(loaded->lock);
        auto folder = modelFolder();
        if (!folder)
            return std::unexpected(CaptionError::failed("the Whisper model is not downloaded and ready"));
        if (!loaded->transcriber || loaded->folder != *folder) {
            auto made = WhisperTranscriber::load(*folder);
            if (!made)
                return std::unexpected(CaptionError::failed(made.error().sentence));
            loaded->transcriber = std::move(*made);
            loaded->folder = *folder;
        }
        std::atomic<bool> stopped{false};
        std::stop_callback onStop(stop, [&stopped] { stopped.store(true); });
        auto segments = loaded->transcriber->transcribe(samples, stopped,
            [&progress](double fraction) {
                if (progress)
                    progress(fraction);
            },
            code.empty() ? std::nullopt : std::optional<std::string>(code));
        if (!segments) {
            if (stopped.load())
                return std::unexpected(CaptionError::cancelled());
            return std::unexpected(CaptionError::failed(segments.error().sentence));
        }
        return std::move(*segments);
    };
}

} // namespace

CaptionEngineRouter::Parts builtInRouterParts(const std::string& language,
    std::function<std::optional<fs::path>()> modelFolder)
{
    if (!modelFolder)
        modelFolder = [] { return readyCaptionModelFolder(FileSettingsStore::shared()); };
    CaptionEngineRouter::Parts parts;
    parts.builtIn = [language] { return pocketSphinxEngine(language); };
    parts.whisper = whisperSpeechEngine(whisperOver(modelFolder, language));
    parts.betterCaptions = [] { return FileSettingsStore::shared().boolean(std::string(betterCaptionsKey), false); };
    parts.modelReady = [modelFolder] { return modelFolder().has_value(); };
    return parts;
}

} // namespace plim
