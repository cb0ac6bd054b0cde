#pragma once
// Which engine makes a plim's captions, and what happens when it fails. Whisper is tried
// first when better captions are switched on and its model is ready; when it fails (or is
// not part of this build), the built-in recogniser makes the captions instead and the pass
// carries a notice saying so. Both engines' words go through the same line builder.
//
// Threads: transcribe() blocks its caller (never the interface thread) for the whole pass;
// choose(), why() and lastFallback() may be called from any thread.

#include "captions/caption_model_manifest.h"
#include "captions/caption_track.h"
#include "captions/speech_engine.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace plim {

class CaptionEngineRouter {
public:
    struct Parts {
        // The built-in recogniser, made when a pass needs it (fails `unavailable` without a model).
        std::function<std::expected<std::shared_ptr<SpeechEngine>, CaptionError>()> builtIn;
        // The Whisper engine; empty when this build has none.
        std::shared_ptr<SpeechEngine> whisper;
        // The better-captions switch in the settings, and whether the model store is ready.
        std::function<bool()> betterCaptions;
        std::function<bool()> modelReady;
        // Seconds a pass may run for a plim of `duration` seconds; default builtInDeadline / whisperDeadline.
        std::function<double(CaptionEngineKind, double duration)> deadline;
        // Decodes the plim's sound for the engine named; default CaptionAudio::monoSamples.
        std::function<Result<std::vector<float>>(const std::filesystem::path& movie, std::string_view reader, StopToken)>
            decode;
    };

    struct Pass {
        CaptionTrack track;
        CaptionEngineKind engine = CaptionEngineKind::builtIn;
        std::optional<std::string> notice; // set when the router fell back
    };

    // Where a pass stands: the engine working and the fraction of its sound done.
    using Progress = std::function<void(CaptionEngineKind engine, double fraction)>;

    explicit CaptionEngineRouter(Parts parts);

    // Whisper when better captions are on and the model is ready; otherwise the built-in recogniser.
    CaptionEngineKind choose() const;

    // Captions for the plim's movie, `duration` seconds long, from the engine `first` (default:
    // choose()). A Whisper failure falls back to the built-in recogniser, logged, with the
    // notice in the pass and in lastFallback(). Nothing is written here.
    std::expected<Pass, CaptionError> transcribe(const std::filesystem::path& movie, double duration,
        const Progress& progress, StopToken stop, std::optional<CaptionEngineKind> first = std::nullopt);

    // The short reason a fallback notice gives for an error.
    static std::string why(const CaptionError& error);

    std::optional<std::string> lastFallback() const;

private:
    std::expected<Pass, CaptionError> run(std::shared_ptr<SpeechEngine> engine, const std::filesystem::path& movie,
        double duration, const Progress& progress, StopToken stop);

    Parts m_parts;
    mutable std::mutex m_lock;
    std::optional<std::string> m_lastFallback;
};

// The router for this computer: PocketSphinx for `language`, and Whisper (loaded on first
// use, then kept) when the better-captions switch in the settings is on and `modelFolder`
// gives a folder: by default the chosen size's folder in the store once it is checked and
// prepared.
CaptionEngineRouter::Parts builtInRouterParts(const std::string& language,
    std::function<std::optional<std::filesystem::path>()> modelFolder = {});

} // namespace plim
