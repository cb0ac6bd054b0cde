// The movie writer's picture encoder: libx264 set up for exports or recordings, BGRA
// pictures converted (or scaled) to 4:2:0 with the movie's matrix, and a key frame every
// two seconds of movie time.

#include "media/movie_writer_ffmpeg.h"

#include "base/log.h"
#include "media/colour_convert.h"

#include <algorithm>
#include <cmath>

namespace plim::ffmpeg {

namespace {

// HD pictures carry BT.709, smaller ones BT.601.
bool isHD(int height) { return height >= 720; }

} // namespace

Result<PictureEncoder> PictureEncoder::open(const MovieWriter::Settings& s, AVFormatContext* format)
{
    const AVCodec* x264 = avcodec_find_encoder_by_name("libx264");
    if (!x264)
        return fail("this build has no H.264 encoder (libx264)");
    PictureEncoder encoder;
    encoder.m_timeScale = s.timeScale;
    const int64_t bitRate = s.bitsPerSecond > 0 ? s.bitsPerSecond : exportBitsPerSecond(s.width, s.height);
    auto open = [&](bool constant) {
        encoder.m_codec.reset(avcodec_alloc_context3(x264));
        AVCodecContext* v = encoder.m_codec.get();
        v->width = s.width;
        v->height = s.height;
        v->pix_fmt = AV_PIX_FMT_YUV420P;
        v->time_base = AVRational{1, s.timeScale};
        v->framerate = av_d2q(s.frameRate, 100000);
        v->gop_size = std::max(1, static_cast<int>(std::lround(fragmentSeconds * s.frameRate)));
        v->bit_rate = bitRate;
        if (constant) {
            // A one-second buffer at the average rate: short clips land on the rate too.
            v->rc_max_rate = v->bit_rate;
            v->rc_buffer_size = static_cast<int>(std::min<int64_t>(v->bit_rate, INT32_MAX));
        }
        v->thread_count = s.threads;
        bool hd = isHD(s.height);
        v->color_range = AVCOL_RANGE_MPEG;
        v->color_primaries = hd ? AVCOL_PRI_BT709 : AVCOL_PRI_SMPTE170M;
        v->color_trc = hd ? AVCOL_TRC_BT709 : AVCOL_TRC_SMPTE170M;
        v->colorspace = hd ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
        if (format->oformat->flags & AVFMT_GLOBALHEADER)
            v->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        AVDictionary* options = nullptr;
        av_dict_set(&options, "preset", s.preset.c_str(), 0);
        av_dict_set(&options, "profile", "high", 0);
        av_dict_set(&options, "forced-idr", "1", 0);
        // The constant rate is held with filler where still pictures need fewer bits, so
        // the file comes out at the size its rate promises.
        if (constant)
            av_dict_set(&options, "nal-hrd", "cbr", 0);
        if (s.container == MovieWriter::Container::fragmentedMov)
            av_dict_set(&options, "bf", "0", 0); // no reordering delay, so no negative decode times
        std::string params = s.lookaheadThread ? "" : "sync-lookahead=0";
        if (s.fewerFramesInFlight) {
            // At 3840 x 2160 each frame x264 keeps holds some 40 MB with its interpolated planes.
            params += std::string(params.empty() ? "" : ":") + "rc-lookahead=3:bframes=0";
            if (s.threads == 0)
                v->thread_count = 1;
        }
        if (!params.empty())
            av_dict_set(&options, "x264-params", params.c_str(), 0);
        int opened = avcodec_open2(v, x264, &options);
        av_dict_free(&options);
        return opened;
    };
    int rc = open(s.constantRate);
    if (rc < 0 && s.constantRate) {
        logLine(LogArea::main, concat("the H.264 encoder would not write at a constant ", bitRate, " bps (", errorText(rc),
                                   "); writing at that rate on average, so the file may come out under the estimate."));
        rc = open(false);
    }
    if (rc < 0)
        return fail(concat("the H.264 encoder would not open at ", s.width, " × ", s.height, " with preset \"", s.preset,
            "\" (", errorText(rc), ")"));
    AVCodecContext* v = encoder.m_codec.get();
    encoder.m_stream = avformat_new_stream(format, nullptr);
    avcodec_parameters_from_context(encoder.m_stream->codecpar, v);
    encoder.m_stream->time_base = v->time_base;
    encoder.m_stream->avg_frame_rate = v->framerate;
    return encoder;
}

bool PictureEncoder::takesPictureAt(double time) const
{
    return std::isfinite(time) && time >= 0
        && (m_lastPts == AV_NOPTS_VALUE || std::llround(time * m_timeScale) > m_lastPts);
}

Result<FramePtr> PictureEncoder::picture(const Image& image, double time)
{
    const AVCodecContext* v = m_codec.get();
    int64_t pts = std::llround(time * m_timeScale);
    constexpr int align = 64;
    if (!m_pictures) {
        const int bytes = av_image_get_buffer_size(AV_PIX_FMT_YUV420P, v->width, v->height, align);
        if (bytes > 0)
            m_pictures.reset(av_buffer_pool_init(static_cast<size_t>(bytes), nullptr));
    }
    FramePtr frame(av_frame_alloc());
    if (!frame || !m_pictures || !(frame->buf[0] = av_buffer_pool_get(m_pictures.get())))
        return fail("a frame buffer could not be made");
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = v->width;
    frame->height = v->height;
    if (av_image_fill_arrays(frame->data, frame->linesize, frame->buf[0]->data, AV_PIX_FMT_YUV420P, v->width,
            v->height, align)
        < 0)
        return fail("a frame buffer could not be made");
    if (!convert(image, frame.get()))
        return fail(concat("a ", image.width, " × ", image.height, " picture could not be scaled"));
    frame->pts = pts;
    frame->color_range = v->color_range;
    frame->color_primaries = v->color_primaries;
    frame->color_trc = v->color_trc;
    frame->colorspace = v->colorspace;
    // A key frame opens every 2 seconds of movie time, so fragments start on them.
    if (pts >= m_nextKeyPts) {
        frame->pict_type = AV_PICTURE_TYPE_I;
        int64_t step = static_cast<int64_t>(fragmentSeconds * m_timeScale);
        m_nextKeyPts = (pts / step + 1) * step;
    }
    m_lastPts = pts;
    return frame;
}

bool PictureEncoder::convert(const Image& image, AVFrame* frame)
{
    const int width = m_codec->width, height = m_codec->height;
    const bool hd = isHD(height);
    const int over = image.width - width, overRows = image.height - height;
    if (over >= 0 && over <= 1 && overRows >= 0 && overRows <= 1) {
        // The same pixels less a column or row: an odd-sized subject made even.
        bgraToYuv420(image.pixels.get(), image.stride, width, height, frame->data, frame->linesize,
            hd ? YuvMatrix::bt709 : YuvMatrix::bt601);
        return true;
    }
    SwsContext* previous = m_scaler.release();
    m_scaler.reset(sws_getCachedContext(previous, image.width, image.height, AV_PIX_FMT_BGRA, width, height,
        AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!m_scaler)
        return false;
    if (m_scaler.get() != previous) {
        // Full-range RGB in, limited-range YUV with the movie's matrix out.
        const int* matrix = sws_getCoefficients(hd ? SWS_CS_ITU709 : SWS_CS_ITU601);
        sws_setColorspaceDetails(m_scaler.get(), sws_getCoefficients(SWS_CS_DEFAULT), 1, matrix, 0, 0, 1 << 16, 1 << 16);
    }
    const uint8_t* source[1] = {image.pixels.get()};
    const int sourceStride[1] = {static_cast<int>(image.stride)};
    sws_scale(m_scaler.get(), source, sourceStride, 0, image.height, frame->data, frame->linesize);
    return true;
}

int PictureEncoder::encode(AVFrame* frame, AVFormatContext* format)
{
    int rc = avcodec_send_frame(m_codec.get(), frame);
    if (rc < 0 && rc != AVERROR_EOF)
        return rc;
    return drainEncoder(m_codec.get(), m_stream, format);
}

} // namespace plim::ffmpeg
