#include "captions/caption_error.h"

#include <algorithm>
#include <cmath>

namespace plim {

std::string_view captionEngineText(CaptionEngineKind kind)
{
    return kind == CaptionEngineKind::whisper ? "whisper" : "pocketsphinx";
}

std::optional<CaptionEngineKind> captionEngineFromText(std::string_view text)
{
    if (text == "pocketsphinx")
        return CaptionEngineKind::builtIn;
    if (text == "whisper")
        return CaptionEngineKind::whisper;
    return std::nullopt;
}

std::string spelledTime(double seconds)
{
    if (!(seconds >= 90))
        return std::to_string(static_cast<long long>(std::llround(std::isfinite(seconds) ? seconds : 0))) + " seconds";
    if (!std::isfinite(seconds))
        return "a very long time";
    return std::to_string(static_cast<long long>(std::llround(seconds / 60))) + " minutes";
}

std::string CaptionError::sentence() const
{
    switch (kind) {
    case Kind::timedOut:
        return "Transcription timed out after " + spelledTime(seconds)
            + ". The plim is unlocked; nothing was written, so try Generate again.";
    case Kind::unavailable:
        return "Speech recognition is not available on this computer for the chosen language. The built-in recognizer "
               "understands US English once the Debian package "
            + std::string(builtInModelPackage) + " is installed (sudo apt install " + std::string(builtInModelPackage)
            + ").";
    case Kind::noAudio:
        return "This plim has no audio track, so there is nothing to transcribe. Record with the microphone or system "
               "audio on and Generate will have words to caption.";
    case Kind::cancelled:
        return "Transcription cancelled. Nothing was written.";
    case Kind::failed:
        break;
    }
    return detail;
}

Error CaptionError::error() const
{
    return Error{sentence(), kind == Kind::cancelled ? Error::Kind::stopped : Error::Kind::failed};
}

double builtInDeadline(double duration)
{
    return std::isfinite(duration) ? std::max(2 * duration, 60.0) : 60.0;
}

double whisperDeadline(double duration)
{
    return builtInDeadline(duration) + 300;
}

} // namespace plim
