// MovieWriter over libavformat/libavcodec: libx264 pictures, AAC sound, MPEG-4 or
// fragmented QuickTime. This file holds the writer itself: the settings' checks, the file
// and its muxer, the queue to the writer's thread and the finishing; the encoders are its
// siblings (movie_writer_ffmpeg.h).

#include "media/movie_writer_ffmpeg.h"

#include "base/log.h"

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

int ffmpeg::drainEncoder(AVCodecContext* encoder, AVStream* stream, AVFormatContext* format)
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
        rc = av_interleaved_write_frame(format, packet.get());
        if (rc < 0)
            return rc;
    }
}

namespace {

// One unit of work for the writer's thread, in the order it was appended: a picture, or
// sound for a track.
struct Job {
    FramePtr video;
    int track = -1;
    SoundPlanes planes;
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

    std::string encoderName() const override { return m_picture ? m_picture->name() : "libx264"; }
    Status appendVideo(const Image& image, double time) override;
    bool takesPictureAt(double time) const override { return m_picture && m_picture->takesPictureAt(time); }
    Status appendAudio(int track, const float* interleaved, int64_t frames, int64_t startFrame) override;
    double soundSeconds(int track) const override
    {
        if (track < 0 || track >= static_cast<int>(m_sound.size()))
            return 0;
        return m_sound[track].seconds();
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
    std::unexpected<Error> refuse(const std::string& why) const
    {
        return fail(concat("The movie ", fileName(), " could not be started: ", why, ". Nothing was written."));
    }
    Status openFile();

    void push(Job job);
    void run();
    void stopThread(bool abandon);
    std::optional<Error> takeError();
    void removeFile();

    Settings m_settings;
    std::unique_ptr<AVFormatContext, OutputClose> m_format;
    std::optional<PictureEncoder> m_picture;
    std::vector<SoundEncoder> m_sound;
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
    std::string after = m_settings.container != Container::fragmentedMov
        ? "Nothing was saved; the partial file was removed."
        : "What was written up to the last whole two seconds is kept in it.";
    return Error{concat("The movie ", fileName(), " could not be written: ", reason, ". ", after), kind};
}

Error FfmpegMovieWriter::writeError(int code, const std::string& what) const
{
    if (isNoSpace(code)) {
        std::string after = m_settings.container != Container::fragmentedMov
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
    const char* format = s.container == Container::mp4 ? "mp4" : s.container == Container::matroska ? "matroska" : "mov";
    int rc = avformat_alloc_output_context2(&raw, nullptr, format, s.path.c_str());
    if (rc < 0 || !raw)
        return refuse(concat("the ", format, " writer is missing from this build"));
    m_format.reset(raw);

    auto picture = PictureEncoder::open(s, m_format.get());
    if (!picture)
        return refuse(picture.error().sentence);
    m_picture = std::move(*picture);
    for (const auto& t : s.sound) {
        auto sound = SoundEncoder::open(t, m_format.get());
        if (!sound)
            return refuse(sound.error().sentence);
        m_sound.push_back(std::move(*sound));
    }
    PLIM_TRY(openFile());
    m_thread = std::thread([this] { run(); });
    return {};
}

// Creates the file and writes the container's header.
Status FfmpegMovieWriter::openFile()
{
    const Settings& s = m_settings;
    std::error_code ec;
    fs::create_directories(s.path.parent_path(), ec);
    int rc = avio_open(&m_format->pb, s.path.c_str(), AVIO_FLAG_WRITE);
    if (rc < 0) {
        if (isNoSpace(rc))
            return std::unexpected(writeError(rc, "the file could not be created"));
        return refuse(concat("the file could not be created (", errorText(rc), ")"));
    }
    m_created = true;
    AVDictionary* mux = nullptr;
    if (s.container == Container::mp4) {
        av_dict_set(&mux, "movflags", "+faststart", 0);
    } else if (s.container == Container::fragmentedMov) {
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
    auto frame = m_picture->picture(image, time);
    if (!frame)
        return std::unexpected(failure(frame.error().sentence));
    push(Job{std::move(*frame), -1, {}});
    if (auto e = takeError())
        return std::unexpected(*e);
    return {};
}

Status FfmpegMovieWriter::appendAudio(int trackIndex, const float* interleaved, int64_t frames, int64_t startFrame)
{
    if (m_done)
        return std::unexpected(failure("the writer was already finished"));
    if (auto e = takeError())
        return std::unexpected(*e);
    if (trackIndex < 0 || trackIndex >= static_cast<int>(m_sound.size()))
        return std::unexpected(failure(concat("the sound was refused: there is no sound track ", trackIndex)));
    if (frames <= 0)
        return {};
    if (!interleaved || startFrame < 0)
        return std::unexpected(failure("a block of sound could not be prepared"));
    SoundPlanes planes = m_sound[trackIndex].accept(interleaved, frames, startFrame);
    if (!planes.empty())
        push(Job{nullptr, trackIndex, std::move(planes)});
    return {};
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
        int rc = job.video ? m_picture->encode(job.video.get(), m_format.get())
                           : m_sound[job.track].encode(job.planes, m_format.get());
        if (rc < 0) {
            std::lock_guard lock(m_mutex);
            m_error = writeError(rc, job.video ? "the writer failed" : "the sound was refused");
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
        int rc = m_picture->encode(nullptr, m_format.get());
        for (auto& track : m_sound)
            if (rc >= 0)
                rc = track.flush(m_format.get());
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
        if (m_settings.container != Container::fragmentedMov)
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
