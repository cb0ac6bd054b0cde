#pragma once
// Why a transcription pass gave no captions, and the sentence the user reads. A pass
// that ends with any of these has written nothing.

#include "base/error.h"

#include <optional>
#include <string>
#include <string_view>

namespace plim {

// The engines that can make captions: PocketSphinx on this computer, or Whisper.
enum class CaptionEngineKind { builtIn, whisper };

// "pocketsphinx", "whisper".
std::string_view captionEngineText(CaptionEngineKind kind);
// The engine for its text, as plimctl takes it.
std::optional<CaptionEngineKind> captionEngineFromText(std::string_view text);

struct CaptionError {
    enum class Kind {
        timedOut,    // `seconds` is the deadline that passed
        unavailable, // no recogniser for the language
        noAudio,     // the plim has no sound to transcribe
        cancelled,   // the caller stopped the pass
        failed,      // anything else: `detail` says what, as a whole sentence or a reason phrase
    };
    Kind kind = Kind::failed;
    double seconds = 0;
    std::string detail;

    bool operator==(const CaptionError&) const = default;

    static CaptionError timedOut(double seconds) { return {Kind::timedOut, seconds, {}}; }
    static CaptionError unavailable() { return {Kind::unavailable, 0, {}}; }
    static CaptionError noAudio() { return {Kind::noAudio, 0, {}}; }
    static CaptionError cancelled() { return {Kind::cancelled, 0, {}}; }
    static CaptionError failed(std::string detail) { return {Kind::failed, 0, std::move(detail)}; }

    // The description shown to the user.
    std::string sentence() const;
    // As a plain error (a cancelled pass reads as stopped).
    Error error() const;
};

// Under 90 seconds "N seconds" (rounded); from 90 on "N minutes" (seconds / 60, rounded).
std::string spelledTime(double seconds);

// How long a pass may run: max(2 x duration, 60) seconds for the built-in recogniser (60
// when the duration is not finite), 300 more for Whisper, which may load its model first.
double builtInDeadline(double duration);
double whisperDeadline(double duration);

// The Debian package holding the built-in recogniser's model.
inline constexpr std::string_view builtInModelPackage = "pocketsphinx-en-us";

} // namespace plim
