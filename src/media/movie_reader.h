#pragma once
// Reading a movie's pictures over FFmpeg (libavformat, libavcodec, libswscale).
//
// Thread and timing contract: one MovieReader is used from one thread at a time (it may
// move between threads between calls). Decoding itself runs on the codec's own frame or
// slice threads, started by the reader; `next()` blocks until the next picture is
// decoded and converted. Times are seconds from the movie's start (the first packet's
// timestamp is subtracted), accurate to the stream's time base. Raw pictures from
// `nextRaw()` are read-only and may be converted on any thread, even after the reader is
// gone, each PictureConverter on one thread at a time.
//
// Colour: pictures come out as BGRA (premultiplied, opaque) through swscale with the
// stream's matrix and range; an untagged stream is read as BT.709 when it is at least
// 720 rows high (HD) and BT.601 otherwise, limited range unless tagged full.

#include "base/error.h"
#include "base/image.h"
#include "base/image_pool.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace plim {

// The largest picture Plim decodes: 36 million pixels (6000 × 6000, an 8K frame fits),
// which holds 144 MB as BGRA. A movie or backdrop picture past it is refused with a
// sentence before its pixels are decoded, so a small file cannot ask for gigabytes.
inline constexpr int64_t largestPicturePixels = 36'000'000;
inline constexpr int largestPictureSide = 16384;

// Whether a picture of that size can be decoded; the sentence names `name` (a file).
Status checkPictureSize(const std::string& name, int64_t width, int64_t height);

struct MovieInfo {
    double duration = 0;   // seconds; the longest of the container's and the picture track's
    double frameRate = 0;  // the picture track's average frame rate (frames a second)
    int width = 0;         // picture size in pixels as stored
    int height = 0;
    bool hasSound = false; // at least one sound track
    int soundTracks = 0;
    std::string codec;     // FFmpeg's name of the picture codec ("h264")
};

// A decoded picture as the decoder made it (a reference to the decoder's own buffers, YUV
// for most movies): a 3840 × 2160 picture holds some 12 MB this way against 33 MB as BGRA.
// Copies share the picture; the decoder reuses its buffers once every copy is gone.
struct RawVideoFrame {
    struct Data; // the decoder's frame, known only inside media/
    std::shared_ptr<const Data> data;
    double time = 0; // as VideoFrame::time
    int width = 0;   // as stored
    int height = 0;
    std::size_t bytes = 0; // the decoder's memory it holds
};

// Makes BGRA Images of raw pictures with a reader's colour rules and scaling, into frames
// of its own that it reuses once every copy of them is gone. One converter serves one
// thread; several can convert pictures of the same reader side by side.
class PictureConverter {
public:
    // `name` is the movie's, for sentences; `width` × `height` as MovieReader::Options.
    explicit PictureConverter(std::string name, int width = 0, int height = 0, size_t keep = 2);
    PictureConverter(PictureConverter&&) noexcept;
    PictureConverter& operator=(PictureConverter&&) noexcept;
    ~PictureConverter();

    Result<Image> convert(const RawVideoFrame& frame);

private:
    struct Scaler;
    std::unique_ptr<Scaler> m_scaler;
    std::string m_name;
    int m_width = 0;
    int m_height = 0;
    ImagePool m_pictures;
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

    // Opens the movie and its first picture track, never blocking on a pipe. Fails with a
    // sentence naming the cause and what to do, of kind `missing` (no file), `unreadable`
    // (a folder, pipe or device, no permission, or a picture codec this build cannot
    // decode), `corrupt` (not a movie, or cut short before its index) or `refused` (a
    // movie without a picture track, or pictures larger than Plim decodes).
    static Result<std::unique_ptr<MovieReader>> create(const std::filesystem::path& path, Options options);
    static Result<std::unique_ptr<MovieReader>> create(const std::filesystem::path& path)
    {
        return create(path, Options{});
    }

    virtual ~MovieReader() = default;

    virtual const MovieInfo& info() const = 0;

    // The next picture in presentation order; nothing once the movie has ended. A movie cut
    // short returns every picture up to the cut, then one error (kind `corrupt`) saying
    // it stopped part way, then nothing.
    virtual Result<std::optional<VideoFrame>> next() = 0;

    // The same picture as `next()`, before it is converted: for a caller that keeps
    // pictures waiting and converts each on its own thread just before it needs the pixels.
    virtual Result<std::optional<RawVideoFrame>> nextRaw() = 0;

    // A converter with this reader's scaling, for pictures from `nextRaw()`.
    virtual PictureConverter converter() const = 0;

    // Positions the reader so that the following `next()` returns the picture showing at
    // `time` (the last one whose time is at or before it; the first picture for earlier
    // times). Decodes from the key frame before `time` and drops what lies before it.
    virtual Status seek(double time) = 0;

    // Whether the last `next()` stopped at a cut in the file rather than its end.
    virtual bool wasCutShort() const = 0;
};

} // namespace plim
