// MovieWriter over libavformat/libavcodec: libx264 pictures, AAC sound, MPEG-4 or
// fragmented QuickTime.

#include "media/movie_writer.h"

#include "base/log.h"
#include "media/colour_convert.h"
#include "media/ffmpeg_support.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

namespace plim {

using namespace ffmpeg;
namespace fs = std::filesystem;

int64_t exportBitsPerSecond(int width, int height)
{
    double pixels = std::max(static_cast<double>(width) * static_cast<double>(height), 1.0);
    return static_cast<int64_t>(9500000.0 * std::pow(pixels / 2073600.0, 0.82));
}

int64_t recordingBitsPerSecond(int width, int height, double scale)
{
    double base = std::max(static_cast<double>(width) * static_cast<double>(height) * 4.0, 8000000.0);
    if (!std::isfinite(scale))
        scale = 1;
    return static_cast<int64_t>(base * std::max(scale, 0.25));
}

MovieWriter::Settings MovieWriter::Settings::recording(fs::path path, int width, int height, double frameRate,
    double bitRateScale)
{
    Settings settings;
    settings.path = std::move(path);
    settings.container = Container::fragmentedMov;
    settings.width = width;
    settings.height = height;
    settings.frameRate = frameRate;
    settings.bitsPerSecond = recordingBitsPerSecond(width, height, bitRateScale);
    settings.preset = recordingPreset;
    settings.scalePictures = true;
    return settings;
}

namespace {

constexpr double fragmentSeconds = 2.0;

// HD pictures carry BT.709, smaller ones BT.601.
bool isHD(int height) { return height >= 720; }

struct AudioTrack {
    MovieWriter::SoundTrack settings;
    CodecPtr encoder;
    AVStream* stream = nullptr;
    FifoPtr fifo;
    int64_t accepted = 0; // frames handed to appendAudio (caller's thread)
    int64_t encoded = 0;  // frames sent to the encoder (writer's thread)
};

// One unit of work for the writer's thread, in the order it was appended.
struct Job {
    FramePtr video;
    int track = -1;
    std::vector<std::vector<float>> planes; // sound, one plane per channel
};

class FfmpegMovieWriter final : public MovieWriter {
public:
    explicit FfmpegMovieWriter(Settings settings) : m_settings(std::move(settings)) {}

    ~FfmpegMovieWriter() override
    {
        if (m_done)
            return;
        if (m_settings.container == Container::fragmentedMov) {
            // A recording dropped without finish keeps its fragments.
            stopThread(false);
            m_format.reset();
        } else {
            cancel();
        }
    }

    Status open();

    std::string encoderName() const override { return m_video ? m_video->codec->name : "libx264"; }
    Status appendVideo(const Image& image, double time) override;
    bool convert(const Image& image, AVFrame* frame);
    bool takesPictureAt(double time) const override;
    Status appendAudio(int track, const float* interleaved, int64_t frames, int64_t startFrame) override;
    double soundSeconds(int track) const override
    {
        if (track < 0 || track >= static_cast<int>(m_audio.size()))
            return 0;
        return static_cast<double>(m_audio[track].accepted) / m_audio[track].settings.sampleRate;
    }
    Status finish() override;
    void cancel() override;

private:
    struct OutputClose {
        void operator()(AVFormatContext* c) const
        {
            if (c->pb)
                avio_closep(&c->pb);
            avformat_free_context(c);
        }
    };

    std::string fileName() const { return m_settings.path.filename().string(); }
    Error writeError(int code, const std::string& what) const;
    Error failure(const std::string& reason, Error::Kind kind = Error::Kind::failed) const;

    void push(Job job);
    void run();
    int encodeVideo(AVFrame* frame);
    int encodeAudio(AudioTrack& track, bool flush);
    int drain(AVCodecContext* encoder, AVStream* stream);
    void stopThread(bool abandon);
    std::optional<Error> takeError();
    void removeFile();

    Settings m_settings;
    std::unique_ptr<AVFormatContext, OutputClose> m_format;
    CodecPtr m_video;
    SwsPtr m_scaler; // pictures of another size, on the caller's thread
    AVStream* m_videoStream = nullptr;
    std::vector<AudioTrack> m_audio;
    int64_t m_lastPts = AV_NOPTS_VALUE;
    int64_t m_nextKeyPts = 0;
    bool m_done = false;
    bool m_created = false; // the file at `path` is ours to remove

    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Job> m_queue;
    int m_videoQueued = 0;
    bool m_closing = false;
    bool m_abandon = false;
    std::optional<Error> m_error; // the writer thread's first failure
};

Error FfmpegMovieWriter::failure(const std::string& reason, Error::Kind kind) const
{
    std::string after = m_settings.container == Container::mp4
        ? "Nothing was saved; the partial file was removed."
        : "What was written up to the last whole two seconds is kept in it.";
    return Error{concat("The movie ", fileName(), " could not be written: ", reason, ". ", after), kind};
}

Error FfmpegMovieWriter::writeError(int code, const std::string& what) const
{
    if (isNoSpace(code)) {
        std::string after = m_settings.container == Container::mp4
            ? "Nothing was saved; the partial file was removed. Free some space there, then try again."
            : "What was written up to the last whole two seconds is kept in it. Free some space there.";
        return Error{concat("The disk is full, so the movie ", fileName(), " could not be written in ", m_settings.path.parent_path().string(), ". ", after),
            Error::Kind::noSpace};
    }
    return failure(concat(what, " (", errorText(code), ")"));
}

Status FfmpegMovieWriter::open()
{
    quietLogs();
    const Settings& s = m_settings;
    auto refuse = [&](const std::string& why) {
        return fail(concat("The movie ", fileName(), " could not be started: ", why, ". Nothing was written."));
    };
    if (s.width < 2 || s.height < 2 || s.width % 2 || s.height % 2)
        return refuse(concat("its size ", s.width, " × ", s.height, " is not an even size of at least 2 × 2"));
    if (!std::isfinite(s.frameRate) || s.frameRate <= 0 || s.frameRate > 1000)
        return refuse(concat("its frame rate ", s.frameRate, " is not usable"));
    if (s.sound.size() > 2)
        return refuse("it asks for more than two sound tracks");
    for (const auto& t : s.sound)
        if (t.channels < 1 || t.channels > 2 || t.sampleRate < 8000 || t.bitsPerSecond <= 0)
            return refuse("a sound track's settings are not usable");
    if (s.timeScale < 1 || s.queueDepth < 1)
        return refuse("its time scale or queue depth is not usable");

    AVFormatContext* raw = nullptr;
    const char* format = s.container == Container::mp4 ? "mp4" : "mov";
    int rc = avformat_alloc_output_context2(&raw, nullptr, format, s.path.c_str());
    if (rc < 0 || !raw)
        return refuse(concat("the ", format, " writer is missing from this build"));
    m_format.reset(raw);

    const AVCodec* x264 = avcodec_find_encoder_by_name("libx264");
    if (!x264)
        return refuse("this build has no H.264 encoder (libx264)");
    const int64_t bitRate = s.bitsPerSecond > 0 ? s.bitsPerSecond : exportBitsPerSecond(s.width, s.height);
    auto open = [&](bool constant) {
        m_video.reset(avcodec_alloc_context3(x264));
        AVCodecContext* v = m_video.get();
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
        if (m_format->oformat->flags & AVFMT_GLOBALHEADER)
            v->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        AVDictionary* options = nullptr;
        av_dict_set(&options, "preset", s.preset.c_str(), 0);
        av_dict_set(&options, "profile", "high", 0);
        av_dict_set(&options, "forced-idr", "1", 0);
        // The constant rate is held with filler where still pictures need fewer bits, so
        // the file comes out at the size its rate promises.
        if (constant)
            av_dict_set(&options, "nal-hrd", "cbr", 0);
        if (s.container == Container::fragmentedMov)
            av_dict_set(&options, "bf", "0", 0); // no reordering delay, so no negative decode times
        std::string params = s.lookaheadThread ? "" : "sync-lookahead=0";
        if (s.fewerFramesInFlight) {
            params += std::string(params.empty() ? "" : ":") + "rc-lookahead=5:bframes=1";
            if (s.threads == 0)
                v->thread_count = 2;
        }
        if (!params.empty())
            av_dict_set(&options, "x264-params", params.c_str(), 0);
        int opened = avcodec_open2(v, x264, &options);
        av_dict_free(&options);
        return opened;
    };
    rc = open(s.constantRate);
    if (rc < 0 && s.constantRate) {
        logLine(LogArea::main, concat("the H.264 encoder would not write at a constant ", bitRate, " bps (", errorText(rc),
                                   "); writing at that rate on average, so the file may come out under the estimate."));
        rc = open(false);
    }
    if (rc < 0)
        return refuse(concat("the H.264 encoder would not open at ", s.width, " × ", s.height, " with preset \"", s.preset, "\" (", errorText(rc), ")"));
    AVCodecContext* v = m_video.get();
    m_videoStream = avformat_new_stream(m_format.get(), nullptr);
    avcodec_parameters_from_context(m_videoStream->codecpar, v);
    m_videoStream->time_base = v->time_base;
    m_videoStream->avg_frame_rate = v->framerate;

    const AVCodec* aac = avcodec_find_encoder(AV_CODEC_ID_AAC);
    for (const auto& t : s.sound) {
        if (!aac)
            return refuse("this build has no AAC encoder");
        AudioTrack track;
        track.settings = t;
        track.encoder.reset(avcodec_alloc_context3(aac));
        AVCodecContext* a = track.encoder.get();
        a->sample_fmt = AV_SAMPLE_FMT_FLTP;
        a->sample_rate = t.sampleRate;
        av_channel_layout_default(&a->ch_layout, t.channels);
        a->bit_rate = t.bitsPerSecond;
        a->time_base = AVRational{1, t.sampleRate};
        if (m_format->oformat->flags & AVFMT_GLOBALHEADER)
            a->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        rc = avcodec_open2(a, aac, nullptr);
        if (rc < 0)
            return refuse(concat("the sound track was refused by the encoder (", errorText(rc), ")"));
        track.stream = avformat_new_stream(m_format.get(), nullptr);
        avcodec_parameters_from_context(track.stream->codecpar, a);
        track.stream->time_base = a->time_base;
        track.fifo.reset(av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, t.channels, a->frame_size * 4));
        m_audio.push_back(std::move(track));
    }

    std::error_code ec;
    fs::create_directories(s.path.parent_path(), ec);
    rc = avio_open(&m_format->pb, s.path.c_str(), AVIO_FLAG_WRITE);
    if (rc < 0) {
        if (isNoSpace(rc))
            return std::unexpected(writeError(rc, "the file could not be created"));
        return refuse(concat("the file could not be created (", errorText(rc), ")"));
    }
    m_created = true;
    AVDictionary* mux = nullptr;
    if (s.container == Container::mp4) {
        av_dict_set(&mux, "movflags", "+faststart", 0);
    } else {
        // The index waits for the first fragment, so it can carry the edit lists that
        // hide the sound encoder's priming: its packets start that far before 0, and the
        // first sound frame plays at 0. Before that fragment there is nothing to keep.
        av_dict_set(&mux, "movflags", "+frag_keyframe+empty_moov+delay_moov+default_base_moof", 0);
        // Each packet reaches the file at once, so a kill loses at most the fragment in progress.
        m_format->flush_packets = 1;
        av_dict_set(&mux, "frag_duration", std::to_string(static_cast<int64_t>(fragmentSeconds * 1e6)).c_str(), 0);
    }
    rc = avformat_write_header(m_format.get(), &mux);
    av_dict_free(&mux);
    if (rc < 0) {
        Error e = writeError(rc, "the file could not be started");
        removeFile();
        return std::unexpected(e);
    }
    avio_flush(m_format->pb);

    m_thread = std::thread([this] { run(); });
    return {};
}

void FfmpegMovieWriter::push(Job job)
{
    std::unique_lock lock(m_mutex);
    bool video = job.video != nullptr;
    if (video)
        m_wake.wait(lock, [&] { return m_videoQueued < m_settings.queueDepth || m_error; });
    if (m_error)
        return;
    m_videoQueued += video;
    m_queue.push_back(std::move(job));
    m_wake.notify_all();
}

std::optional<Error> FfmpegMovieWriter::takeError()
{
    std::lock_guard lock(m_mutex);
    return m_error;
}

Status FfmpegMovieWriter::appendVideo(const Image& image, double time)
{
    if (m_done)
        return std::unexpected(failure("the writer was already finished"));
    if (auto e = takeError())
        return std::unexpected(*e);
    bool sized = image.width == m_settings.width && image.height == m_settings.height;
    if (image.isEmpty() || (!sized && !m_settings.scalePictures))
        return std::unexpected(failure(concat("a frame was refused: it is ", image.width, " × ", image.height, ", the movie is ", m_settings.width, " × ", m_settings.height)));
    if (!std::isfinite(time) || time < 0)
        return std::unexpected(failure("a frame was refused: its time is not usable"));
    if (!takesPictureAt(time))
        return std::unexpected(failure(concat("a frame was refused: its time ", time, " s does not come after the one before it")));
    int64_t pts = std::llround(time * m_settings.timeScale);
    FramePtr frame(av_frame_alloc());
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = m_settings.width;
    frame->height = m_settings.height;
    if (av_frame_get_buffer(frame.get(), 0) < 0)
        return std::unexpected(failure("a frame buffer could not be made"));
    if (!convert(image, frame.get()))
        return std::unexpected(failure(concat("a ", image.width, " × ", image.height, " picture could not be scaled")));
    frame->pts = pts;
    frame->color_range = m_video->color_range;
    frame->color_primaries = m_video->color_primaries;
    frame->color_trc = m_video->color_trc;
    frame->colorspace = m_video->colorspace;
    // A key frame opens every 2 seconds of movie time, so fragments start on them.
    if (pts >= m_nextKeyPts) {
        frame->pict_type = AV_PICTURE_TYPE_I;
        int64_t step = static_cast<int64_t>(fragmentSeconds * m_settings.timeScale);
        m_nextKeyPts = (pts / step + 1) * step;
    }
    m_lastPts = pts;
    push(Job{std::move(frame), -1, {}});
    if (auto e = takeError())
        return std::unexpected(*e);
    return {};
}

bool FfmpegMovieWriter::convert(const Image& image, AVFrame* frame)
{
    const int width = m_settings.width, height = m_settings.height;
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

bool FfmpegMovieWriter::takesPictureAt(double time) const
{
    return std::isfinite(time) && time >= 0
        && (m_lastPts == AV_NOPTS_VALUE || std::llround(time * m_settings.timeScale) > m_lastPts);
}

Status FfmpegMovieWriter::appendAudio(int trackIndex, const float* interleaved, int64_t frames, int64_t startFrame)
{
    if (m_done)
        return std::unexpected(failure("the writer was already finished"));
    if (auto e = takeError())
        return std::unexpected(*e);
    if (trackIndex < 0 || trackIndex >= static_cast<int>(m_audio.size()))
        return std::unexpected(failure(concat("the sound was refused: there is no sound track ", trackIndex)));
    if (frames <= 0)
        return {};
    if (!interleaved || startFrame < 0)
        return std::unexpected(failure("a block of sound could not be prepared"));
    AudioTrack& track = m_audio[trackIndex];
    int channels = track.settings.channels;
    int64_t skip = std::max<int64_t>(0, track.accepted - startFrame); // already given
    int64_t gap = std::max<int64_t>(0, startFrame - track.accepted);  // silence to fill
    if (skip >= frames)
        return {};
    int64_t count = gap + frames - skip;
    Job job;
    job.track = trackIndex;
    job.planes.assign(channels, std::vector<float>(static_cast<size_t>(count), 0.0f));
    for (int64_t i = skip; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            job.planes[c][gap + i - skip] = interleaved[i * channels + c];
    track.accepted += count;
    push(std::move(job));
    return {};
}

int FfmpegMovieWriter::drain(AVCodecContext* encoder, AVStream* stream)
{
    PacketPtr packet(av_packet_alloc());
    for (;;) {
        int rc = avcodec_receive_packet(encoder, packet.get());
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF)
            return 0;
        if (rc < 0)
            return rc;
        av_packet_rescale_ts(packet.get(), encoder->time_base, stream->time_base);
        packet->stream_index = stream->index;
        rc = av_interleaved_write_frame(m_format.get(), packet.get());
        if (rc < 0)
            return rc;
    }
}

int FfmpegMovieWriter::encodeVideo(AVFrame* frame)
{
    int rc = avcodec_send_frame(m_video.get(), frame);
    if (rc < 0 && rc != AVERROR_EOF)
        return rc;
    return drain(m_video.get(), m_videoStream);
}

int FfmpegMovieWriter::encodeAudio(AudioTrack& track, bool flush)
{
    AVCodecContext* a = track.encoder.get();
    int frameSize = a->frame_size > 0 ? a->frame_size : 1024;
    for (;;) {
        int available = av_audio_fifo_size(track.fifo.get());
        if (available == 0 || (available < frameSize && !flush))
            break;
        int n = std::min(available, frameSize);
        FramePtr frame(av_frame_alloc());
        frame->format = a->sample_fmt;
        av_channel_layout_copy(&frame->ch_layout, &a->ch_layout);
        frame->sample_rate = a->sample_rate;
        // The last block is padded with silence unless the encoder takes a short one.
        bool shortOk = a->codec->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME;
        frame->nb_samples = (n < frameSize && !shortOk) ? frameSize : n;
        if (av_frame_get_buffer(frame.get(), 0) < 0)
            return AVERROR(ENOMEM);
        av_samples_set_silence(frame->data, 0, frame->nb_samples, a->ch_layout.nb_channels, a->sample_fmt);
        av_audio_fifo_read(track.fifo.get(), reinterpret_cast<void**>(frame->data), n);
        frame->pts = track.encoded;
        track.encoded += frame->nb_samples;
        int rc = avcodec_send_frame(a, frame.get());
        if (rc < 0)
            return rc;
        if ((rc = drain(a, track.stream)) < 0)
            return rc;
    }
    if (flush) {
        int rc = avcodec_send_frame(a, nullptr);
        if (rc < 0 && rc != AVERROR_EOF)
            return rc;
        return drain(a, track.stream);
    }
    return 0;
}

void FfmpegMovieWriter::run()
{
    for (;;) {
        Job job;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait(lock, [&] { return !m_queue.empty() || m_closing; });
            if (m_queue.empty() || m_abandon)
                return;
            job = std::move(m_queue.front());
            m_queue.pop_front();
            m_videoQueued -= job.video != nullptr;
            m_wake.notify_all();
            if (m_error)
                continue;
        }
        int rc = 0;
        std::string what;
        if (job.video) {
            rc = encodeVideo(job.video.get());
            what = "the writer failed";
        } else {
            AudioTrack& track = m_audio[job.track];
            std::vector<void*> planes;
            for (auto& plane : job.planes)
                planes.push_back(plane.data());
            av_audio_fifo_write(track.fifo.get(), planes.data(), static_cast<int>(job.planes[0].size()));
            rc = encodeAudio(track, false);
            what = "the sound was refused";
        }
        if (rc < 0) {
            std::lock_guard lock(m_mutex);
            m_error = writeError(rc, what);
            m_wake.notify_all();
        }
    }
}

void FfmpegMovieWriter::stopThread(bool abandon)
{
    {
        std::lock_guard lock(m_mutex);
        m_closing = true;
        m_abandon = abandon;
        m_wake.notify_all();
    }
    if (m_thread.joinable())
        m_thread.join();
}

void FfmpegMovieWriter::removeFile()
{
    if (m_format && m_format->pb)
        avio_closep(&m_format->pb);
    if (!m_created)
        return;
    std::error_code ec;
    fs::remove(m_settings.path, ec);
    m_created = false;
}

Status FfmpegMovieWriter::finish()
{
    if (m_done)
        return std::unexpected(failure("the writer was already finished"));
    stopThread(false);
    m_done = true;
    std::optional<Error> error = takeError();
    if (!error) {
        int rc = encodeVideo(nullptr);
        for (auto& track : m_audio)
            if (rc >= 0)
                rc = encodeAudio(track, true);
        if (rc >= 0)
            rc = av_write_trailer(m_format.get());
        if (rc >= 0 && m_format->pb) {
            avio_flush(m_format->pb);
            rc = m_format->pb->error;
            if (rc >= 0)
                rc = avio_closep(&m_format->pb);
        }
        if (rc < 0)
            error = writeError(rc, "the file could not be finished");
    }
    if (error) {
        if (m_settings.container == Container::mp4)
            removeFile();
        m_format.reset();
        logLine(LogArea::main, error->sentence);
        return std::unexpected(*error);
    }
    m_format.reset();
    return {};
}

void FfmpegMovieWriter::cancel()
{
    if (m_done)
        return;
    stopThread(true);
    m_done = true;
    removeFile();
    m_format.reset();
}

} // namespace

Result<std::unique_ptr<MovieWriter>> MovieWriter::create(Settings settings)
{
    auto writer = std::make_unique<FfmpegMovieWriter>(std::move(settings));
    if (auto opened = writer->open(); !opened) {
        writer->cancel();
        return std::unexpected(opened.error());
    }
    return std::unique_ptr<MovieWriter>(std::move(writer));
}

} // namespace plim
