#pragma once
// Private to media/: the parts of the FFmpeg movie writer (movie_writer_ffmpeg.cpp). The
// picture encoder (movie_writer_ffmpeg_picture.cpp) and each sound track's encoder
// (movie_writer_ffmpeg_sound.cpp) prepare what they are given on the caller's thread and
// encode it on the writer's thread, handing their packets to the muxer; the writer owns
// the file, the queue between the two threads and the order of things.
//
// Failures come back as FFmpeg error codes from the writer's thread and as a reason (the
// middle of a sentence the writer completes) from the caller's.

#include "media/ffmpeg_support.h"
#include "media/movie_writer.h"

#include "base/error.h"
#include "base/image.h"

#include <cstdint>
#include <vector>

namespace plim::ffmpeg {

// Recordings are cut into fragments this long, each opening on a key frame.
inline constexpr double fragmentSeconds = 2.0;

// Sends what an encoder has ready to the muxer: 0, or FFmpeg's error code.
int drainEncoder(AVCodecContext* encoder, AVStream* stream, AVFormatContext* format);

// libx264 at the writer's size and rate. Pictures are converted (and scaled, when the
// writer does so) on the caller's thread.
class PictureEncoder {
public:
    // Opens the encoder and adds its stream to `format`; fails with the reason.
    static Result<PictureEncoder> open(const MovieWriter::Settings& settings, AVFormatContext* format);

    std::string name() const { return m_codec->codec->name; }
    bool takesPictureAt(double time) const;
    // The encoder's picture for `image` shown from `time`, which takesPictureAt allows.
    Result<FramePtr> picture(const Image& image, double time);
    // Encodes one picture, or flushes with nullptr (writer's thread).
    int encode(AVFrame* frame, AVFormatContext* format);

private:
    bool convert(const Image& image, AVFrame* frame);

    CodecPtr m_codec;
    AVStream* m_stream = nullptr;
    SwsPtr m_scaler; // pictures of another size
    // The encoder's pictures, reused once x264 has copied them in: a fresh 3-MB buffer for
    // every 1080p frame cost page faults that took more CPU than the colour conversion.
    PoolPtr m_pictures;
    int m_timeScale = 600;
    int64_t m_lastPts = AV_NOPTS_VALUE;
    int64_t m_nextKeyPts = 0;
};

// Sound, one plane of samples per channel.
using SoundPlanes = std::vector<std::vector<float>>;

// One AAC track. The caller's side keeps count of the frames accepted and lays blocks
// end to end; the writer's side feeds the encoder whole frames of its size.
class SoundEncoder {
public:
    // Opens the encoder and adds its stream to `format`; fails with the reason.
    static Result<SoundEncoder> open(const MovieWriter::SoundTrack& track, AVFormatContext* format);

    int channels() const { return m_track.channels; }
    double seconds() const { return static_cast<double>(m_accepted) / m_track.sampleRate; }
    // The planes that carry `frames` interleaved frames to their place at `startFrame`: a
    // gap before it silent, frames already given left out; empty when nothing is new.
    SoundPlanes accept(const float* interleaved, int64_t frames, int64_t startFrame);
    // Encodes what whole frames the planes complete (writer's thread).
    int encode(const SoundPlanes& planes, AVFormatContext* format);
    // Encodes the rest, the last frame padded, and flushes the encoder.
    int flush(AVFormatContext* format);

private:
    int encodeQueued(AVFormatContext* format, bool flush);

    MovieWriter::SoundTrack m_track;
    CodecPtr m_codec;
    AVStream* m_stream = nullptr;
    FifoPtr m_fifo;
    int64_t m_accepted = 0; // frames accepted (caller's thread)
    int64_t m_encoded = 0;  // frames sent to the encoder (writer's thread)
};

} // namespace plim::ffmpeg
