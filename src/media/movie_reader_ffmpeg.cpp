// MovieReader over libavformat/libavcodec, pictures converted by libswscale.

#include "media/movie_reader.h"

#include "media/ffmpeg_support.h"

#include "base/files.h"
#include "base/image_pool.h"

#include <algorithm>
#include <cmath>
#include <system_error>
#include <unistd.h>

namespace plim {

using namespace ffmpeg;
namespace fs = std::filesystem;

namespace {

// The swscale matrix for a stream's colour space; untagged HD is BT.709, SD BT.601.
int swsMatrix(AVColorSpace space, int height)
{
    switch (space) {
    case AVCOL_SPC_BT709: return SWS_CS_ITU709;
    case AVCOL_SPC_FCC: return SWS_CS_FCC;
    case AVCOL_SPC_BT470BG:
    case AVCOL_SPC_SMPTE170M: return SWS_CS_ITU601;
    case AVCOL_SPC_SMPTE240M: return SWS_CS_SMPTE240M;
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL: return SWS_CS_BT2020;
    default: return height >= 720 ? SWS_CS_ITU709 : SWS_CS_ITU601;
    }
}

bool isFullRange(const AVFrame* frame)
{
    if (frame->color_range == AVCOL_RANGE_JPEG)
        return true;
    switch (frame->format) {
    case AV_PIX_FMT_YUVJ420P:
    case AV_PIX_FMT_YUVJ422P:
    case AV_PIX_FMT_YUVJ444P: return true;
    default: return false;
    }
}

bool isYuv(int format)
{
    const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
    return d && !(d->flags & AV_PIX_FMT_FLAG_RGB) && d->nb_components >= 3;
}

} // namespace

Status checkPictureSize(const std::string& name, int64_t width, int64_t height)
{
    if (width <= largestPictureSide && height <= largestPictureSide && width * height <= largestPicturePixels)
        return {};
    return fail(concat(name, " holds pictures of ", width, " × ", height, ", more than the ", largestPicturePixels / 1'000'000,
                    " million pixels Plim decodes (one such picture would take ", (width * height * 4) >> 20,
                    " MB). Scale it down to 6000 × 6000 or less and use it again; the file was left as it is."),
        Error::Kind::refused);
}

struct RawVideoFrame::Data {
    FramePtr frame;
};

struct PictureConverter::Scaler {
    SwsPtr sws;
};

PictureConverter::PictureConverter(std::string name, int width, int height, size_t keep)
    : m_scaler(std::make_unique<Scaler>()), m_name(std::move(name)), m_width(width), m_height(height), m_pictures(keep)
{
}

PictureConverter::PictureConverter(PictureConverter&&) noexcept = default;
PictureConverter& PictureConverter::operator=(PictureConverter&&) noexcept = default;
PictureConverter::~PictureConverter() = default;

Result<Image> PictureConverter::convert(const RawVideoFrame& raw)
{
    if (!raw.data || !raw.data->frame)
        return fail(concat("A picture of ", m_name, " was asked for that was never decoded."));
    const AVFrame* frame = raw.data->frame.get();
    int outW = m_width > 0 && m_height > 0 ? m_width : frame->width;
    int outH = m_width > 0 && m_height > 0 ? m_height : frame->height;
    int flags = (outW < frame->width || outH < frame->height) ? SWS_AREA : SWS_BICUBIC;
    SwsPtr& sws = m_scaler->sws;
    sws.reset(sws_getCachedContext(sws.release(), frame->width, frame->height,
        static_cast<AVPixelFormat>(frame->format), outW, outH, AV_PIX_FMT_BGRA, flags, nullptr,
        nullptr, nullptr));
    if (!sws)
        return fail(concat(m_name, " has pictures Plim cannot convert (", frame->width, " × ", frame->height,
                        "). It was left as it is."),
            Error::Kind::unreadable);
    if (isYuv(frame->format)) {
        const int* matrix = sws_getCoefficients(swsMatrix(frame->colorspace, frame->height));
        sws_setColorspaceDetails(sws.get(), matrix, isFullRange(frame) ? 1 : 0, matrix, 1, 0, 1 << 16, 1 << 16);
    }
    Image image = m_pictures.take(outW, outH);
    uint8_t* dst[1] = {image.pixels.get()};
    int dstStride[1] = {static_cast<int>(image.stride)};
    sws_scale(sws.get(), frame->data, frame->linesize, 0, frame->height, dst, dstStride);
    return image;
}

namespace {

class FfmpegMovieReader final : public MovieReader {
public:
    FfmpegMovieReader(fs::path path, Options options) : m_path(std::move(path)), m_options(options) {}

    Status open();
    const MovieInfo& info() const override { return m_info; }
    Result<std::optional<VideoFrame>> next() override;
    Result<std::optional<RawVideoFrame>> nextRaw() override;
    PictureConverter converter() const override
    {
        return PictureConverter(name(), m_options.width, m_options.height);
    }
    Status seek(double time) override;
    bool wasCutShort() const override { return m_cutShort; }

private:
    std::string name() const { return m_path.filename().string(); }
    // Whether the file starts as a QuickTime or MPEG-4 movie does.
    bool looksLikeMovie() const;
    std::string notAMovie(const std::string& why) const
    {
        return concat(name(), " is not a movie Plim can read (", why,
            "). Name a plim's movie (a .mov or .mp4 Plim wrote); the file was left as it is.");
    }
    std::string endsEarly(const std::string& why) const
    {
        return concat(name(), " ends early, inside its header (", why,
            "): the recording was cut short, perhaps by a crash or a full disk, before it was finished. Nothing in "
            "it can be played; the file was left as it is. Record the plim again.");
    }
    double frameTime(const AVFrame* frame) const;
    // The next decoded frame, or nothing at the end of the stream.
    Result<FramePtr> decodeOne();
    Error cutShortError() const;

    fs::path m_path;
    Options m_options;
    MovieInfo m_info;
    InputPtr m_format;
    CodecPtr m_decoder;
    // Pictures for `next()`, reused once the caller lets go of them.
    PictureConverter m_pictures{name(), m_options.width, m_options.height, 6};
    int m_stream = -1;
    double m_origin = 0;        // container start, seconds
    double m_streamEnd = 0;     // where the picture track says it ends
    bool m_draining = false;    // the demuxer has ended; the decoder is being flushed
    bool m_ended = false;
    bool m_readFailed = false;  // the demuxer stopped with an error, not at the end
    bool m_cutShort = false;
    bool m_cutReported = false;
    double m_lastTime = -1;
    std::optional<double> m_seekTarget;
    FramePtr m_pending;         // a frame decoded ahead (seeking looks one past the target)
};

Status FfmpegMovieReader::open()
{
    quietLogs();
    if (auto file = checkOrdinaryFile(m_path); !file) {
        if (file.error().kind == Error::Kind::missing)
            return fail(concat("There is no movie at ", m_path.string(), ". Check that the file is still there."),
                Error::Kind::missing);
        if (file.error().sentence == errnoText(EACCES) || file.error().sentence == errnoText(EPERM))
            return fail(concat("Plim has no permission to read ", name(), ". Give your user read access to it (or "
                               "open it as its owner); the file was left as it is."),
                Error::Kind::unreadable);
        return fail(concat(m_path.string(), " is not a movie file (", file.error().sentence,
                        "). Name the plim's movie itself; nothing was read or changed."),
            Error::Kind::unreadable);
    }
    AVFormatContext* raw = nullptr;
    int rc = avformat_open_input(&raw, m_path.c_str(), nullptr, nullptr);
    if (rc < 0) {
        if (rc == AVERROR(EACCES) || rc == AVERROR(EPERM))
            return fail(concat("Plim has no permission to read ", name(), ". Give your user read access to it; the "
                               "file was left as it is."),
                Error::Kind::unreadable);
        return fail(looksLikeMovie() ? endsEarly(errorText(rc)) : notAMovie(errorText(rc)), Error::Kind::corrupt);
    }
    m_format.reset(raw);
    // Sizes from the header, before any picture is decoded to find the rest.
    for (unsigned i = 0; i < raw->nb_streams; ++i)
        if (const AVCodecParameters* par = raw->streams[i]->codecpar; par->codec_type == AVMEDIA_TYPE_VIDEO)
            PLIM_TRY(checkPictureSize(name(), par->width, par->height));
    rc = avformat_find_stream_info(raw, nullptr);
    if (rc < 0)
        return fail(looksLikeMovie() ? endsEarly(errorText(rc)) : notAMovie(errorText(rc)), Error::Kind::corrupt);

    for (unsigned i = 0; i < raw->nb_streams; ++i)
        if (raw->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO)
            ++m_info.soundTracks;
    m_info.hasSound = m_info.soundTracks > 0;

    // A cover picture is not a picture track.
    auto isCover = [&](int i) { return (raw->streams[i]->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0; };
    m_stream = av_find_best_stream(raw, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (m_stream >= 0 && isCover(m_stream)) {
        m_stream = -1;
        for (unsigned i = 0; i < raw->nb_streams && m_stream < 0; ++i)
            if (raw->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !isCover(static_cast<int>(i)))
                m_stream = static_cast<int>(i);
    }
    if (m_stream < 0 && raw->nb_streams == 0)
        return fail(looksLikeMovie() ? endsEarly("it holds no tracks") : notAMovie("it holds no tracks"),
            Error::Kind::corrupt);
    if (m_stream < 0)
        return fail(concat(name(), " has no picture track (", m_info.hasSound ? "only sound" : "nothing that plays",
                        "), so there is nothing to show. Pick a movie that shows a picture; the file was left as it is."),
            Error::Kind::refused);
    AVStream* stream = raw->streams[m_stream];
    const AVCodecParameters* par = stream->codecpar;
    PLIM_TRY(checkPictureSize(name(), par->width, par->height));
    m_info.codec = avcodec_get_name(par->codec_id);
    m_info.width = par->width;
    m_info.height = par->height;
    AVRational rate = stream->avg_frame_rate.num ? stream->avg_frame_rate : stream->r_frame_rate;
    m_info.frameRate = rate.num && rate.den ? av_q2d(rate) : 0;

    m_origin = movieOrigin(raw);
    // The container's end on the movie's clock: its sound may begin before the first
    // picture, by the sound encoder's priming.
    double container = 0;
    if (raw->duration != AV_NOPTS_VALUE)
        container = (raw->duration + (raw->start_time != AV_NOPTS_VALUE ? raw->start_time : 0)) / double(AV_TIME_BASE)
            - m_origin;
    if (stream->duration != AV_NOPTS_VALUE) {
        double start = stream->start_time != AV_NOPTS_VALUE ? stream->start_time * av_q2d(stream->time_base) : m_origin;
        m_streamEnd = start + stream->duration * av_q2d(stream->time_base) - m_origin;
    }
    m_info.duration = std::max(container, m_streamEnd);

    const AVCodec* codec = avcodec_find_decoder(par->codec_id);
    auto undecodable = [&](const std::string& why) {
        return fail(concat(name(), " holds pictures in ", m_info.codec, ", which this build of Plim cannot decode",
                        why, ". Convert it to H.264, then open it again; the file was left as it is."),
            Error::Kind::unreadable);
    };
    if (!codec)
        return undecodable("");
    m_decoder.reset(avcodec_alloc_context3(codec));
    avcodec_parameters_to_context(m_decoder.get(), par);
    m_decoder->pkt_timebase = stream->time_base;
    m_decoder->thread_count = m_options.threads;
    m_decoder->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
    rc = avcodec_open2(m_decoder.get(), codec, nullptr);
    if (rc < 0)
        return undecodable(concat(" (", errorText(rc), ")"));
    for (unsigned i = 0; i < raw->nb_streams; ++i)
        if (static_cast<int>(i) != m_stream)
            raw->streams[i]->discard = AVDISCARD_ALL;
    return {};
}

bool FfmpegMovieReader::looksLikeMovie() const
{
    auto fd = openOrdinaryFile(m_path);
    if (!fd)
        return false;
    unsigned char head[8] = {};
    const ssize_t n = ::read(*fd, head, sizeof head);
    ::close(*fd);
    if (n < 8)
        return false;
    const std::string box(reinterpret_cast<const char*>(head + 4), 4);
    return box == "ftyp" || box == "moov" || box == "mdat" || box == "wide" || box == "free" || box == "skip";
}

double FfmpegMovieReader::frameTime(const AVFrame* frame) const
{
    int64_t ts = frame->best_effort_timestamp != AV_NOPTS_VALUE ? frame->best_effort_timestamp : frame->pts;
    if (ts == AV_NOPTS_VALUE)
        return m_lastTime + (m_info.frameRate > 0 ? 1 / m_info.frameRate : 0);
    return ts * av_q2d(m_format->streams[m_stream]->time_base) - m_origin;
}

Result<FramePtr> FfmpegMovieReader::decodeOne()
{
    FramePtr frame(av_frame_alloc());
    PacketPtr packet(av_packet_alloc());
    for (;;) {
        int rc = avcodec_receive_frame(m_decoder.get(), frame.get());
        if (rc == 0)
            return frame;
        if (rc == AVERROR_EOF) {
            m_ended = true;
            return FramePtr{};
        }
        if (rc != AVERROR(EAGAIN)) {
            // A damaged picture: note it and go on with the next packet.
            m_readFailed = true;
        }
        if (m_draining) {
            if (rc != AVERROR(EAGAIN) && rc != 0) {
                m_ended = true;
                return FramePtr{};
            }
            continue;
        }
        rc = av_read_frame(m_format.get(), packet.get());
        if (rc < 0) {
            if (rc != AVERROR_EOF)
                m_readFailed = true;
            m_draining = true;
            avcodec_send_packet(m_decoder.get(), nullptr);
            continue;
        }
        if (packet->stream_index == m_stream) {
            int sent = avcodec_send_packet(m_decoder.get(), packet.get());
            if (sent < 0 && sent != AVERROR(EAGAIN))
                m_readFailed = true;
        }
        av_packet_unref(packet.get());
    }
}

Error FfmpegMovieReader::cutShortError() const
{
    char where[64];
    std::snprintf(where, sizeof where, "%.2f s", std::max(m_lastTime, 0.0));
    return Error{concat(name(), " stops part way, after ", where,
                     ": it was cut short, perhaps by a crash or a full disk. The pictures up to there were read; "
                     "the file was left as it is."),
        Error::Kind::corrupt};
}

Result<std::optional<VideoFrame>> FfmpegMovieReader::next()
{
    auto raw = PLIM_TRY(nextRaw());
    if (!raw)
        return std::optional<VideoFrame>{};
    return std::optional<VideoFrame>(VideoFrame{PLIM_TRY(m_pictures.convert(*raw)), raw->time});
}

Result<std::optional<RawVideoFrame>> FfmpegMovieReader::nextRaw()
{
    for (;;) {
        FramePtr frame = std::move(m_pending);
        if (!frame && !m_ended)
            frame = PLIM_TRY(decodeOne());
        if (!frame) {
            m_seekTarget.reset();
            double step = m_info.frameRate > 0 ? 1 / m_info.frameRate : 0;
            bool shortOfEnd = m_streamEnd > 0 && m_lastTime + 2 * step + 0.05 < m_streamEnd;
            m_cutShort = m_cutShort || m_readFailed || shortOfEnd;
            if (m_cutShort && !m_cutReported) {
                m_cutReported = true;
                return std::unexpected(cutShortError());
            }
            return std::optional<RawVideoFrame>{};
        }
        if (m_seekTarget) {
            // Keep the last frame at or before the target; return it once a later one shows.
            FramePtr ahead = m_ended ? FramePtr{} : PLIM_TRY(decodeOne());
            if (ahead && frameTime(ahead.get()) <= *m_seekTarget + 1e-6) {
                m_pending = std::move(ahead);
                continue;
            }
            m_pending = std::move(ahead);
            m_seekTarget.reset();
        }
        RawVideoFrame raw;
        raw.time = frameTime(frame.get());
        raw.width = frame->width;
        raw.height = frame->height;
        for (const AVBufferRef* buffer : frame->buf)
            raw.bytes += buffer ? buffer->size : 0;
        m_lastTime = raw.time;
        raw.data = std::make_shared<const RawVideoFrame::Data>(RawVideoFrame::Data{std::move(frame)});
        return std::optional<RawVideoFrame>(std::move(raw));
    }
}

Status FfmpegMovieReader::seek(double time)
{
    if (!std::isfinite(time))
        return fail(concat("A seek in ", name(), " asked for a time that is not a number."));
    time = std::max(time, 0.0);
    AVStream* stream = m_format->streams[m_stream];
    int64_t ts = static_cast<int64_t>(std::floor((time + m_origin) / av_q2d(stream->time_base)));
    int rc = av_seek_frame(m_format.get(), m_stream, ts, AVSEEK_FLAG_BACKWARD);
    if (rc < 0)
        rc = av_seek_frame(m_format.get(), m_stream, ts, AVSEEK_FLAG_BACKWARD | AVSEEK_FLAG_ANY);
    if (rc < 0)
        return fail(concat(name(), " could not be read from ", time, " s (", errorText(rc), "). It was left as it is."),
            Error::Kind::unreadable);
    avcodec_flush_buffers(m_decoder.get());
    m_pending.reset();
    m_draining = false;
    m_ended = false;
    m_cutReported = false;
    m_seekTarget = time;
    m_lastTime = time - 1e-3;
    return {};
}

} // namespace

Result<std::unique_ptr<MovieReader>> MovieReader::create(const fs::path& path, Options options)
{
    auto reader = std::make_unique<FfmpegMovieReader>(path, options);
    PLIM_TRY(reader->open());
    return std::unique_ptr<MovieReader>(std::move(reader));
}

} // namespace plim
