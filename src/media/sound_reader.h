#pragma once
// Reading a movie's or sound file's sound over FFmpeg, resampled with libswresample.
//
// Every sound track of the file is decoded and converted to 48,000 Hz stereo float; the
// tracks are summed (a recording's microphone and system-sound tracks play together).
// Output is interleaved (left, right, left, right ...), frame 0 being the movie's time 0.
//
// Thread contract: one reader is used from one thread at a time.

#include "base/error.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

namespace plim {

inline constexpr int soundSampleRate = 48000;
inline constexpr int soundChannels = 2;

class SoundReader {
public:
    // Opens the file's sound tracks, positioned so that the first `read()` starts exactly
    // at `startFrame` (frames at 48 kHz from the movie's start). Fails with a sentence:
    // kind `missing` (no file), `unreadable` (cannot be opened, or no sound Plim can decode).
    // A sound track that is there but cannot be decoded fails with kind `refused`. A file
    // without any sound track reads as silence of no length (the first read is empty).
    // Errors carry a reason phrase, not a sentence ("it is not a sound file Plim can
    // read"); callers put their own label in front.
    static Result<std::unique_ptr<SoundReader>> create(const std::filesystem::path& path, int64_t startFrame = 0);

    virtual ~SoundReader() = default;

    // The frame the next `read()` starts at.
    virtual int64_t position() const = 0;

    // The next block of interleaved stereo samples (some thousands of frames, a whole
    // number of frames); an empty vector once every track has ended. A read error is a
    // sentence-free reason in Error::sentence (kind `unreadable`), e.g. "the file stopped
    // part way"; callers add their own label. A file that ends early (a read error, not the
    // end of the file) gives kind `failed`.
    virtual Result<std::vector<float>> read() = 0;
};

} // namespace plim
