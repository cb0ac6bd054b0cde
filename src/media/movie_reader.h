#pragma once
// Reading a movie's pictures over FFmpeg (libavformat, libavcodec, libswscale).
//
// Thread and timing contract: one MovieReader is used from one thread at a time (it may
// move between threads between calls). Decoding itself runs on the codec's own frame or
// slice threads, started by the reader; `next()` blocks until the next picture is
// decoded and converted. Times are seconds from the movie's start (the first packet's
// timestamp is subtracted), accurate to the stream's time base.
//
// Colour: pictures come out as BGRA (premultiplied, opaque) through swscale with the
// stream's matrix and range; an untagged stream is read as BT.709 when it is at least
// 720 rows high (HD) and BT.601 otherwise, limited range unless tagged full.

#include "base/error.h"
#include "base/image.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace plim {

struct MovieInfo {
    double duration = 0;   // seconds; the longest of the container's and the picture track's
    double frameRate = 0;  // the picture track's average frame rate (frames a second)
    int width = 0;         // picture size in pixels as stored
    int height = 0;
    bool hasSound = false; // at least one sound track
    int soundTracks = 0;
    std::string codec;     // FFmpeg's name of the picture codec ("h264")
};

class MovieReader {
public:
    struct Options {
        // Scale every picture to this size in the same swscale pass as the colour
        // conversion; 0 × 0 keeps the stored size.
        int width = 0;
        int height = 0;
        // Decoder threads; 0 lets the codec choose (one per core).
        int threads = 0;
    };

    // Opens the movie and its first picture track. Fails with a sentence (kind `missing`
    // when there is no file, `unreadable` for a file that is not a movie, has no picture,
    // is cut short before its index, or holds a codec this build cannot decode).
    static Result<std::unique_ptr<MovieReader>> create(const std::filesystem::path& path, Options options);
    static Result<std::unique_ptr<MovieReader>> create(const std::filesystem::path& path)
    {
        return create(path, Options{});
    }

    virtual ~MovieReader() = default;

    virtual const MovieInfo& info() const = 0;

    // The next picture in presentation order; nothing once the movie has ended. A movie cut
    // short returns every picture up to the cut, then one error (kind `unreadable`) saying
    // it stopped part way, then nothing.
    virtual Result<std::optional<VideoFrame>> next() = 0;

    // Positions the reader so that the following `next()` returns the picture showing at
    // `time` (the last one whose time is at or before it; the first picture for earlier
    // times). Decodes from the key frame before `time` and drops what lies before it.
    virtual Status seek(double time) = 0;

    // Whether the last `next()` stopped at a cut in the file rather than its end.
    virtual bool wasCutShort() const = 0;
};

} // namespace plim
