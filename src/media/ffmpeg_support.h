#pragma once
// Private to media/: FFmpeg includes, owners for its objects and its error texts.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <cerrno>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

namespace plim::ffmpeg {

struct FrameFree { void operator()(AVFrame* f) const { av_frame_free(&f); } };
struct PacketFree { void operator()(AVPacket* p) const { av_packet_free(&p); } };
struct CodecFree { void operator()(AVCodecContext* c) const { avcodec_free_context(&c); } };
struct SwsFree { void operator()(SwsContext* c) const { sws_freeContext(c); } };
struct SwrFree { void operator()(SwrContext* c) const { swr_free(&c); } };
struct FifoFree { void operator()(AVAudioFifo* f) const { av_audio_fifo_free(f); } };
struct InputClose { void operator()(AVFormatContext* c) const { avformat_close_input(&c); } };
// The pool goes once the last buffer taken from it comes back.
struct PoolFree { void operator()(AVBufferPool* p) const { av_buffer_pool_uninit(&p); } };

using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFree>;
using SwsPtr = std::unique_ptr<SwsContext, SwsFree>;
using SwrPtr = std::unique_ptr<SwrContext, SwrFree>;
using FifoPtr = std::unique_ptr<AVAudioFifo, FifoFree>;
using InputPtr = std::unique_ptr<AVFormatContext, InputClose>;
using PoolPtr = std::unique_ptr<AVBufferPool, PoolFree>;

// FFmpeg's text for an error code, starting in lower case ("no space left on device").
inline std::string errorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    std::string s = text;
    if (!s.empty() && s[0] >= 'A' && s[0] <= 'Z' && (s.size() < 2 || !(s[1] >= 'A' && s[1] <= 'Z')))
        s[0] = static_cast<char>(s[0] - 'A' + 'a');
    return s;
}

// Joins texts and numbers into one sentence (numbers as the stream writes them: 2.5, 320).
template<typename... Parts>
std::string concat(const Parts&... parts)
{
    std::ostringstream out;
    (out << ... << parts);
    return out.str();
}

// Seconds of the container's clock that count as the movie's time 0: the first picture's
// time when there is a picture track (muxers shift pictures by B-frame delay and sound
// priming; the first picture is what the recording began with), otherwise the container's
// start when that is later than 0.
inline double movieOrigin(AVFormatContext* format)
{
    int video = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (video >= 0) {
        const AVStream* stream = format->streams[video];
        if (stream->start_time != AV_NOPTS_VALUE)
            return stream->start_time * av_q2d(stream->time_base);
    }
    if (format->start_time == AV_NOPTS_VALUE || format->start_time <= 0)
        return 0;
    return format->start_time / double(AV_TIME_BASE);
}

// FFmpeg's own chatter stays off standard error; its failures reach users as sentences.
inline void quietLogs()
{
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_FATAL); });
}

inline bool isNoSpace(int code) { return code == AVERROR(ENOSPC) || code == AVERROR(EDQUOT); }

} // namespace plim::ffmpeg
