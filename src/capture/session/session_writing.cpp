// The session's writers: the screen movie with its sound tracks, fed through the queue by
// the writer thread, the camera movie written on the camera's thread, and the keystroke
// track flushed (and the movies synced to the disk) while they grow.

#include "capture/session/session_state.h"

#include "base/log.h"

#include <cmath>

#include <fcntl.h>
#include <unistd.h>

namespace plim {

using namespace session;

namespace {

constexpr std::chrono::seconds keysFlushInterval{4};
constexpr auto writerWait = std::chrono::milliseconds(100);

} // namespace

Status CaptureSession::Impl::openWriters()
{
    const fs::path& movie = options.movie;
    auto ws = MovieWriter::Settings::recording(movie, width, height, settings.framesPerSecond, settings.bitRateScale);
    if (devices.microphone) {
        micTrack = int(ws.sound.size());
        ws.sound.push_back(MovieWriter::microphoneTrack());
    }
    if (devices.systemSound) {
        systemTrack = int(ws.sound.size());
        ws.sound.push_back(MovieWriter::systemSoundTrack());
    }
    auto made = MovieWriter::create(ws);
    if (!made) {
        if (made.error().kind == Error::Kind::noSpace)
            return fail(diskFullBeforeFirstFrame, Error::Kind::noSpace);
        return std::unexpected(made.error());
    }
    writer = std::move(*made);

    if (devices.camera) {
        auto cs = MovieWriter::Settings::recording(sidecarPath(movie, PlimFiles::camera), devices.camera->width() & ~1,
            devices.camera->height() & ~1, devices.camera->framesPerSecond(), settings.bitRateScale);
        if (auto camera = MovieWriter::create(cs))
            cameraWriter = std::move(*camera);
        else {
            devices.missing.push_back(camera.error().sentence + " The plim rolls without the camera.");
            devices.camera.reset();
        }
    }
    return {};
}

void CaptureSession::Impl::onFrame(CapturedFrame&& frame)
{
    // Only the hand-over happens here, on the source's thread; the writer scales.
    double trackSeconds;
    bool first = false;
    {
        std::lock_guard guard(lock);
        if (ended || pauses.pausedAt(frame.uptime))
            return;
        trackSeconds = trackSecondsAt(frame.uptime);
        if (!firstFrameUptime) {
            firstFrameUptime = frame.uptime;
            firstTrackSeconds = trackSeconds;
            first = true;
        }
    }
    QueueItem item = VideoItem{std::move(frame.image), trackSeconds};
    if (queue->push(item, std::chrono::milliseconds(0), 1) != BoundedQueue<QueueItem>::Wait::done) {
        std::lock_guard guard(lock);
        if (first) {
            // The next frame is the first then.
            firstFrameUptime.reset();
            firstTrackSeconds.reset();
        } else if (!ended) {
            ++framesDropped;
        }
        return;
    }
    // The journal learns the offset now, so a track rebuilt after a kill places its
    // stamps where the final track would.
    if (first && cursor) {
        cursor->setVideoStartOffsetMS(static_cast<int64_t>((frame.uptime - cursor->startUptime()) * 1000.0));
        journalCameraOffset();
    }
}

// Once both the screen and the camera have their first frame, the journal learns how far
// apart they started, as the finished track would.
void CaptureSession::Impl::journalCameraOffset()
{
    std::optional<double> screenFirst, cameraFirst;
    {
        std::lock_guard guard(lock);
        screenFirst = firstFrameUptime;
        cameraFirst = cameraFirstUptime;
    }
    if (screenFirst && cameraFirst && cursor)
        cursor->setCameraOffsetMS(static_cast<int64_t>((*screenFirst - *cameraFirst) * 1000.0));
}

void CaptureSession::Impl::onCameraFrame(CapturedFrame&& frame)
{
    double seconds;
    bool first = false;
    {
        std::lock_guard guard(lock);
        if (ended || pauses.pausedAt(frame.uptime))
            return;
        double track = trackSecondsAt(frame.uptime);
        if (!cameraFirstUptime) {
            cameraFirstUptime = frame.uptime;
            cameraFirstTrack = track;
            first = true;
        }
        seconds = track - *cameraFirstTrack;
    }
    if (first)
        journalCameraOffset();
    if (seconds <= 0 && frame.uptime != *cameraFirstUptime)
        return;
    // Only this thread writes the camera movie. Frames that come bunched after a stall
    // would share the writer's tick; the later ones are left out.
    if (cameraFailed || !cameraWriter->takesPictureAt(seconds))
        return;
    if (auto status = cameraWriter->appendVideo(frame.image, seconds); !status) {
        // The camera is stopped with the other sources, from the session's thread: this
        // is the camera's own thread, which cannot wait for itself.
        missing(status.error().sentence + " The rest of the plim goes on without the camera.");
        cameraFailed = true;
        return;
    }
}

void CaptureSession::Impl::writeLoop(std::stop_token)
{
    pthread_setname_np(pthread_self(), "plim.capture.wr");
    std::vector<AudioItem> early; // sound heard before the first frame's position is known
    for (;;) {
        std::optional<QueueItem> item;
        auto wait = queue->pop(item, writerWait);
        if (wait == BoundedQueue<QueueItem>::Wait::closed)
            return;
        if (wait == BoundedQueue<QueueItem>::Wait::timedOut)
            continue;
        {
            std::lock_guard guard(lock);
            if (ended)
                return;
        }
        Status status;
        if (auto* video = std::get_if<VideoItem>(&*item)) {
            double first;
            {
                std::lock_guard guard(lock);
                first = *firstTrackSeconds;
            }
            double t = video->trackSeconds - first;
            // A frame taken just before a pause and one just after it may fall in the
            // same tick of the writer. The later one is left out.
            if (!writer->takesPictureAt(t))
                continue;
            status = writer->appendVideo(video->image, t);
            if (status) {
                lastVideoSeconds = t;
                std::lock_guard guard(lock);
                ++framesWritten;
                writtenSeconds = t;
            }
            for (auto& pending : early)
                if (status)
                    status = appendSound(pending, first);
            early.clear();
        } else {
            auto& audio = std::get<AudioItem>(*item);
            std::optional<double> first;
            {
                std::lock_guard guard(lock);
                first = framesWritten > 0 ? firstTrackSeconds : std::nullopt;
            }
            if (!first)
                early.push_back(std::move(audio));
            else
                status = appendSound(audio, *first);
        }
        if (!status) {
            bool none;
            {
                std::lock_guard guard(lock);
                none = framesWritten == 0;
            }
            const Error& error = status.error();
            if (error.kind == Error::Kind::noSpace)
                endWith(none ? diskFullBeforeFirstFrame : "The disk filled while rolling at " + lengthText(lastVideoSeconds),
                    none);
            else
                endWith("The plim file could not be written.", none);
            logLine(LogArea::main, "the screen movie writer said: "
                    + (error.sentence.empty() ? std::string(unknownWriterError) : error.sentence));
            return;
        }
    }
}

Status CaptureSession::Impl::appendSound(const AudioItem& audio, double first)
{
    int channels = audio.track == systemTrack ? 2 : 1;
    int64_t frames = int64_t(audio.samples.size()) / channels;
    const float* data = audio.samples.data();
    SoundPlacement& place = placements[audio.track];
    double wanted = (audio.trackSeconds - first) * 48000.0;
    int64_t start = std::llround(wanted);
    std::vector<float> longer;
    if (place.placed && audio.joins && std::fabs(wanted - double(place.next)) <= SoundPlacement::breakFrames) {
        start = place.next;
        if (wanted - double(start) >= 2 && frames > 0) { // running late: repeat the first frame
            longer.assign(data, data + channels);
            longer.insert(longer.end(), data, data + frames * channels);
            data = longer.data();
            ++frames;
        } else if (wanted - double(start) <= -2 && frames > 1) { // running early: skip one
            data += channels;
            --frames;
        }
    }
    if (start < 0) {
        int64_t skip = std::min(frames, -start);
        data += skip * channels;
        frames -= skip;
        start = 0;
    }
    if (frames <= 0)
        return {};
    place.next = std::max(place.next, start + frames);
    place.placed = true;
    return writer->appendAudio(audio.track, data, frames, start);
}

// Writes the keystroke track beside the movie every few seconds while it grows, so a
// process killed outright loses at most that much of it (the cursor recorder keeps its own
// journal), and puts the movies' fragments written so far on the disk, so a power loss
// loses little more than a kill.
void CaptureSession::Impl::flushLoop(std::stop_token stop)
{
    pthread_setname_np(pthread_self(), "plim.capture.fl");
    std::vector<int> movies;
    for (const fs::path& path : {options.movie, sidecarPath(options.movie, PlimFiles::camera)})
        if (int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC); fd >= 0)
            movies.push_back(fd);
    size_t written = 0;
    auto next = std::chrono::steady_clock::now() + keysFlushInterval;
    while (!stop.stop_requested()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (std::chrono::steady_clock::now() < next)
            continue;
        next += keysFlushInterval;
        for (int fd : movies)
            ::fdatasync(fd);
        if (!keystrokes)
            continue;
        KeystrokeTrack keys = keystrokes->snapshot();
        if (keys.events.size() == written)
            continue;
        if (keys.write(options.movie))
            written = keys.events.size();
    }
    for (int fd : movies)
        ::close(fd);
}

} // namespace plim
