#pragma once
// The five ways a share render can fail, each with the sentence the user reads. Every
// failure says that nothing was saved; the partial file has already been removed.

#include "base/error.h"

#include <string>

namespace plim::ShareFailure {

// How long the encoder may accept nothing before the share is given up.
inline constexpr double defaultStallSeconds = 30.0;

Error unreadable(const std::string& reason);
Error writer(const std::string& reason, bool noSpace = true);
Error stopped();
Error stalled(double stallSeconds = defaultStallSeconds);
Error emptyEdit();

// Short reasons used inside writer(...).
namespace Reason {
inline constexpr const char* notFinished = "the file could not be finished";
inline constexpr const char* soundBlock = "a block of sound could not be prepared";
inline constexpr const char* soundRefused = "the sound was refused";
inline constexpr const char* writerFailed = "the writer failed";
inline constexpr const char* frameRefused = "a frame was refused";
inline constexpr const char* gifNotFinished = "the GIF could not be finished";
inline constexpr const char* gifFrame = "a GIF frame could not be drawn";
inline constexpr const char* soundTrackRefused = "the sound track was refused by the encoder";
std::string gifNotCreated(const std::string& path);
std::string cannotEncode(int width, int height);
} // namespace Reason

} // namespace plim::ShareFailure
