#pragma once
// The plim's sound as the speech engines take it: every sound track mixed to mono and
// resampled to 16 kHz, 32-bit float.

#include "base/error.h"

#include <filesystem>
#include <string_view>
#include <vector>

namespace plim {

struct CaptionAudio {
    // Decodes the movie's sound for `reader` (the engine named in failures: "Whisper",
    // "the built-in recognizer"). A movie without sound gives no samples. Failures are
    // reason phrases: "the plim's audio could not be opened for Whisper", "... could not be
    // read for Whisper", "reading the plim's audio stopped partway"; a stop gives
    // Error::Kind::stopped.
    static Result<std::vector<float>> monoSamples(const std::filesystem::path& movie, std::string_view reader,
        StopToken stop = {});

    // 48 kHz interleaved stereo to 16 kHz mono: the channels averaged, low-passed below
    // 8 kHz and every third sample kept. `history` carries the filter's tail between
    // blocks of one stream (start with an empty one).
    static void downmix(const std::vector<float>& stereo48k, std::vector<float>& history, std::vector<float>& out);
};

} // namespace plim
