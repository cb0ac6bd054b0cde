#include "capture/capture_session.h"

#include "base/clock.h"
#include "base/files.h"
#include "base/log.h"
#include "capture/array_mic.h"
#include "capture/camera_source.h"
#include "capture/x11_input.h"
#include "media/media.h"

extern "C" {
#include <libswscale/swscale.h>
}

#include <sys/statvfs.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>
#include <variant>
#include <vector>

namespace plim {

namespace {

constexpr const char* diskFullBeforeFirstFrame =
    "The disk was full before the first frame could be written. Free at least 2 GB and roll again.";
constexpr const char* noFrames = "No frames arrived before the plim ended.";
constexpr const char* neverStarted = "The recorder never started.";
constexpr const char* unknownWriterError = "Unknown writer error.";
constexpr uint64_t minimumFreeBytes = 256 * 1024;
constexpr std::chrono::seconds keysFlushInterval{4};
constexpr std::chrono::seconds soundStartWait{3}; // a monitor of an idle sink may take two

// The X11 inputs behind the recorders' seams.
struct X11Inputs {
    std::unique_ptr<X11Input> input;
    X11PointerSource pointer;
    X11ClickSource clicks;
    X11KeySource keys;
    explicit X11Inputs(std::unique_ptr<X11Input> in)
        : input(std::move(in)), pointer(*input), clicks(*input), keys(*input)
    {
    }
};

// The tracks (and the cursor journal) of a plim that is not kept.
void removeTrackFiles(const fs::path& movie)
{
    std::error_code ignored;
    fs::remove(KeystrokeTrack::fileBeside(movie), ignored);
    fs::remove(CursorTrack::fileBeside(movie), ignored);
    fs::remove(CursorTrack::journalBeside(movie), ignored);
}

// Where the pointer is when no input could be opened: nowhere, so no sample is taken.
struct StillPointer final : PointerSource {
    std::optional<Point> position() override { return std::nullopt; }
};

// A recorded window that grows or shrinks keeps its first size in the movie, cropped or
// padded from its top-left corner, so what the movie shows is that size at the window's
// corner: the frame keys say so, and the pointer lands where the picture shows it.
struct ShownWindowFrames final : WindowFrameSource {
    WindowFrameSource& window;
    Size shown;
    ShownWindowFrames(WindowFrameSource& w, Size s) : window(w), shown(s) {}
    std::optional<Rect> windowFrame(uint32_t windowID) override
    {
        auto frame = window.windowFrame(windowID);
        if (frame && frame->width > 0 && frame->height > 0) {
            frame->width = shown.width;
            frame->height = shown.height;
        }
        return frame;
    }
};

// Scales (or crops to even) a captured picture to the movie's size.
class FrameFitter {
public:
    FrameFitter(int width, int height) : m_width(width), m_height(height) {}
    ~FrameFitter()
    {
        if (m_sws)
            sws_freeContext(m_sws);
    }

    Image fit(const Image& source)
    {
        if (source.width == m_width && source.height == m_height)
            return source;
        if (source.width >= m_width && source.height >= m_height && source.width - m_width <= 1
            && source.height - m_height <= 1) {
            Image view = source; // the same pixels, one column or row fewer
            view.width = m_width;
            view.height = m_height;
            return view;
        }
        m_sws = sws_getCachedContext(m_sws, source.width, source.height, AV_PIX_FMT_BGRA, m_width, m_height,
            AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr, nullptr, nullptr);
        Image out = Image::allocate(m_width, m_height);
        if (!m_sws)
            return out;
        const uint8_t* src[1] = {source.pixels.get()};
        const int srcStride[1] = {static_cast<int>(source.stride)};
        uint8_t* dst[1] = {out.pixels.get()};
        const int dstStride[1] = {static_cast<int>(out.stride)};
        sws_scale(m_sws, src, srcStride, 0, source.height, dst, dstStride);
        return out;
    }

private:
    int m_width, m_height;
    SwsContext* m_sws = nullptr;
};

// Pause spans on the uptime clock, to tell whether an instant was paused and how much
// paused time lies before it. Guarded by the session's lock.
struct PauseSpans {
    std::vector<std::pair<double, double>> closed;
    std::optional<double> open;

    bool pausedAt(double t) const
    {
        if (open && t >= *open)
            return true;
        for (const auto& [a, b] : closed)
            if (t >= a && t < b)
                return true;
        return false;
    }
    double pausedBefore(double t) const
    {
        double sum = 0;
        for (const auto& [a, b] : closed)
            if (b <= t)
                sum += b - a;
        return sum;
    }
};

struct VideoItem {
    Image image;
    double trackSeconds; // uptime minus paused time before it
};
struct AudioItem {
    int track;
    std::vector<float> samples;
    double trackSeconds;
    bool joins; // follows the track's previous block with no break
};

// Where a sound track's blocks go in the movie. A block that joins the one before goes
// right after it, so sound is never padded or cut for the jitter of its stamps; the
// drift between its stamp and that place is taken up one frame a block (a repeated or
// skipped frame is inaudible). A block that does not join, or strays further than a
// break would, goes where its stamp says: the writer fills a gap with silence and drops
// an overlap.
struct SoundPlacement {
    static constexpr double breakFrames = 0.040 * 48000;
    int64_t next = 0; // the frame after the last one placed
    bool placed = false;
};
using QueueItem = std::variant<VideoItem, AudioItem>;

} // namespace

Result<CaptureDevices> openDevices(const CaptureSettings& settings)
{
    CaptureDevices devices;
    devices.screen = PLIM_TRY(createX11ScreenSource(settings.subject, settings.display));
    if (auto input = X11Input::open(settings.display)) {
        auto inputs = std::make_shared<X11Inputs>(std::move(*input));
        devices.pointer = &inputs->pointer;
        devices.keyActivity = &inputs->pointer;
        devices.windowFrames = &inputs->pointer;
        devices.clicks = &inputs->clicks;
        devices.keys = &inputs->keys;
        devices.inputOwner = inputs;
    } else {
        logLine(LogArea::main, input.error().sentence);
    }
    if (settings.microphone) {
        if (auto mic = createPulseSoundSource(SoundSource::Kind::microphone, settings.microphoneDevice))
            devices.microphone = std::move(*mic);
        else
            devices.missing.push_back(mic.error().sentence);
    }
    if (settings.systemSound) {
        if (auto sound = createPulseSoundSource(SoundSource::Kind::systemSound, settings.systemSoundDevice))
            devices.systemSound = std::move(*sound);
        else
            devices.missing.push_back(sound.error().sentence);
    }
    if (settings.camera) {
        if (auto camera = createV4l2CameraSource(settings.cameraDevice))
            devices.camera = std::move(*camera);
        else
            devices.missing.push_back(camera.error().sentence);
    }
    return devices;
}

class CaptureSession::Impl {
public:
    CaptureSettings settings;
    CaptureDevices devices;
    Options options;
    int width = 0, height = 0;
    std::unique_ptr<MovieWriter> writer;
    std::unique_ptr<MovieWriter> cameraWriter;
    std::unique_ptr<CursorRecorder> cursor;
    std::unique_ptr<KeystrokeRecorder> keystrokes;
    std::unique_ptr<FrameFitter> fitter;
    std::optional<StillPointer> stillPointer; // when no pointer source opened
    std::optional<ShownWindowFrames> shownFrames;
    int micTrack = -1, systemTrack = -1;
    ArrayMic::Treatment treatment;
    SoundPlacement placements[2]; // by track; writer thread only

    mutable std::mutex lock; // guards everything below
    std::condition_variable wake;
    std::deque<QueueItem> queue;
    int videoQueued = 0;
    PauseSpans pauses;
    std::optional<double> firstFrameUptime;
    std::optional<double> firstTrackSeconds;
    std::optional<double> cameraFirstUptime;
    std::optional<double> cameraFirstTrack;
    int soundsFlowing = 0;        // sound sources that delivered a block
    bool soundBroken[2] = {};     // by track: a block was left out (a pause)
    bool soundFlowed[2] = {};     // by track
    std::condition_variable soundStarted;
    double lastVideoSeconds = -1;
    double writtenSeconds = 0;
    int64_t framesWritten = 0;
    int64_t framesDropped = 0;
    bool ended = false;        // no more items are taken
    bool quitWriter = false;
    std::optional<std::string> failure; // why it ended by itself
    bool failureBeforeFirstFrame = false;
    bool finished = false;
    bool cameraFailed = false;               // camera thread only
    std::jthread writerThread;
    std::jthread flushThread;

    // Writes the keystroke track beside the movie every few seconds while it grows, so a
    // process killed outright loses at most that much of it (the cursor recorder keeps
    // its own journal).
    void flushLoop(std::stop_token stop)
    {
        pthread_setname_np(pthread_self(), "plim.capture.fl");
        size_t written = 0;
        auto next = std::chrono::steady_clock::now() + keysFlushInterval;
        while (!stop.stop_requested()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (std::chrono::steady_clock::now() < next)
                continue;
            next += keysFlushInterval;
            KeystrokeTrack keys = keystrokes->snapshot();
            if (keys.events.size() == written)
                continue;
            if (keys.write(options.movie))
                written = keys.events.size();
        }
    }

    double trackSecondsAt(double uptime) const { return uptime - pauses.pausedBefore(uptime); }

    // Says that something asked for is not being recorded.
    void missing(const std::string& sentence)
    {
        logLine(LogArea::main, sentence);
        if (options.onMissing)
            options.onMissing(sentence);
    }

    void endWith(std::string headline, bool beforeFirstFrame = false)
    {
        std::function<void(const std::string&)> notify;
        {
            std::lock_guard guard(lock);
            if (ended)
                return;
            ended = true;
            failure = headline;
            failureBeforeFirstFrame = beforeFirstFrame;
            notify = options.onEnded;
        }
        wake.notify_all();
        logLine(LogArea::main, "the recording stopped by itself: " + headline);
        if (notify)
            notify(headline);
    }

    // The window closed ("That window is gone."), or the picture stopped coming.
    void screenEnded(const Error& error)
    {
        if (error.kind == Error::Kind::missing) {
            endWith(error.sentence);
            return;
        }
        logLine(LogArea::main, error.sentence);
        double recorded;
        {
            std::lock_guard guard(lock);
            recorded = writtenSeconds;
        }
        endWith("Recording ended early at " + lengthText(recorded));
    }

    void onFrame(CapturedFrame&& frame)
    {
        Image fitted = fitter->fit(frame.image);
        bool first = false;
        {
            std::lock_guard guard(lock);
            if (ended || pauses.pausedAt(frame.uptime))
                return;
            if (videoQueued >= options.queueDepth) {
                ++framesDropped;
                return;
            }
            if (!firstFrameUptime) {
                firstFrameUptime = frame.uptime;
                firstTrackSeconds = trackSecondsAt(frame.uptime);
                first = true;
            }
            queue.push_back(VideoItem{std::move(fitted), trackSecondsAt(frame.uptime)});
            ++videoQueued;
        }
        // The journal learns the offset now, so a track rebuilt after a kill places its
        // stamps where the final track would.
        if (first && cursor)
            cursor->setVideoStartOffsetMS(static_cast<int64_t>((frame.uptime - cursor->startUptime()) * 1000.0));
        wake.notify_one();
    }

    void onSound(SoundSource::Kind kind, SoundBlock&& block)
    {
        int track = kind == SoundSource::Kind::microphone ? micTrack : systemTrack;
        if (track < 0)
            return;
        std::vector<float> samples;
        if (kind == SoundSource::Kind::microphone) {
            {
                std::lock_guard guard(lock);
                if (pauses.pausedAt(block.uptime)) {
                    soundBroken[track] = true;
                    return; // the treatment's clock stands still while paused
                }
            }
            ArrayMic::Buffer buffer{std::move(block.samples), block.channels, block.sampleRate};
            buffer = treatment.treated(std::move(buffer));
            samples = buffer.channels == 1 ? std::move(buffer.samples) : ArrayMic::downmixedToMono(buffer).samples;
        } else {
            samples = std::move(block.samples);
        }
        bool first = false;
        {
            std::lock_guard guard(lock);
            if (!std::exchange(soundFlowed[track], true)) {
                ++soundsFlowing;
                first = true;
            }
            if (ended || pauses.pausedAt(block.uptime)) {
                soundBroken[track] = true;
            } else {
                bool joins = block.joinsPrevious && !std::exchange(soundBroken[track], false);
                queue.push_back(AudioItem{track, std::move(samples), trackSecondsAt(block.uptime), joins});
            }
        }
        if (first)
            soundStarted.notify_all();
        wake.notify_one();
    }

    void onCameraFrame(CapturedFrame&& frame)
    {
        double seconds;
        {
            std::lock_guard guard(lock);
            if (ended || pauses.pausedAt(frame.uptime))
                return;
            double track = trackSecondsAt(frame.uptime);
            if (!cameraFirstUptime) {
                cameraFirstUptime = frame.uptime;
                cameraFirstTrack = track;
            }
            seconds = track - *cameraFirstTrack;
        }
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

    void writeLoop(std::stop_token)
    {
        pthread_setname_np(pthread_self(), "plim.capture.wr");
        std::vector<AudioItem> early; // sound heard before the first frame's position is known
        for (;;) {
            QueueItem item;
            {
                std::unique_lock guard(lock);
                wake.wait(guard, [&] { return quitWriter || (!queue.empty() && !ended); });
                if (ended || (quitWriter && queue.empty()))
                    return;
                item = std::move(queue.front());
                queue.pop_front();
                if (std::holds_alternative<VideoItem>(item))
                    --videoQueued;
            }
            Status status;
            if (auto* video = std::get_if<VideoItem>(&item)) {
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
                auto& audio = std::get<AudioItem>(item);
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

    Status appendSound(const AudioItem& audio, double first)
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

    void stopSources()
    {
        if (devices.screen)
            devices.screen->stop();
        if (devices.microphone)
            devices.microphone->stop();
        if (devices.systemSound)
            devices.systemSound->stop();
        if (devices.camera)
            devices.camera->stop();
    }
};

std::string CaptureSession::lengthText(double seconds)
{
    if (!std::isfinite(seconds) || seconds < 0 || seconds > 1e9)
        return "an unknown length";
    auto whole = static_cast<int64_t>(seconds);
    char text[48];
    if (whole >= 3600)
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", (long long)(whole / 3600), (long long)(whole / 60 % 60),
            (long long)(whole % 60));
    else
        std::snprintf(text, sizeof text, "%lld:%02lld", (long long)(whole / 60), (long long)(whole % 60));
    return text;
}

CaptureSession::CaptureSession(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}

CaptureSession::~CaptureSession()
{
    if (m_impl && !m_impl->finished)
        finish();
}

Result<std::unique_ptr<CaptureSession>> CaptureSession::start(const CaptureSettings& settings, CaptureDevices devices,
    Options options)
{
    if (settings.subject.kind == ScreenSubject::Kind::device)
        return fail("A device subject reached the screen path.", Error::Kind::refused);
    if (!devices.screen)
        return fail("No display is available to record.", Error::Kind::missing);
    auto impl = std::make_unique<Impl>();
    impl->settings = settings;
    impl->options = std::move(options);
    Impl& s = *impl;
    s.devices = std::move(devices);

    ScreenSource& screen = *s.devices.screen;
    Rect frame = screen.frame();
    Size output = CaptureQualityRules::evenSize(
        CaptureQualityRules::outputSize(settings.quality, frame.size(), screen.scale()));
    if (output.width < 2 || output.height < 2) {
        char size[96];
        std::snprintf(size, sizeof size, "%g x %g", frame.width, frame.height);
        return fail(std::string("That subject reports a size of ") + size + " points, which is too small to record.",
            Error::Kind::refused);
    }
    s.width = int(output.width);
    s.height = int(output.height);
    s.fitter = std::make_unique<FrameFitter>(s.width, s.height);

    const auto& movie = s.options.movie;
    std::error_code ec;
    fs::create_directories(movie.parent_path(), ec);
    struct statvfs space{};
    if (statvfs(movie.parent_path().c_str(), &space) == 0
        && uint64_t(space.f_bavail) * uint64_t(space.f_frsize) < minimumFreeBytes)
        return fail(diskFullBeforeFirstFrame, Error::Kind::noSpace);

    auto ws = MovieWriter::Settings::recording(movie, s.width, s.height, settings.framesPerSecond, settings.bitRateScale);
    if (s.devices.microphone) {
        s.micTrack = int(ws.sound.size());
        ws.sound.push_back(MovieWriter::microphoneTrack());
    }
    if (s.devices.systemSound) {
        s.systemTrack = int(ws.sound.size());
        ws.sound.push_back(MovieWriter::systemSoundTrack());
    }
    auto writer = MovieWriter::create(ws);
    if (!writer) {
        if (writer.error().kind == Error::Kind::noSpace)
            return fail(diskFullBeforeFirstFrame, Error::Kind::noSpace);
        return std::unexpected(writer.error());
    }
    s.writer = std::move(*writer);

    if (s.devices.camera) {
        auto cs = MovieWriter::Settings::recording(sidecarPath(movie, PlimFiles::camera), s.devices.camera->width() & ~1,
            s.devices.camera->height() & ~1, s.devices.camera->framesPerSecond(), settings.bitRateScale);
        if (auto camera = MovieWriter::create(cs))
            s.cameraWriter = std::move(*camera);
        else {
            s.devices.missing.push_back(camera.error().sentence + " The plim rolls without the camera.");
            s.devices.camera.reset();
        }
    }

    for (const auto& sentence : s.devices.missing)
        s.missing(sentence);
    // The sound streams start first and the recorders and the picture only once they flow
    // (or a few seconds have passed), so the sound covers the movie from its first frame
    // and the tracks' clocks start just before it. Their blocks wait in the queue.
    int soundsStarted = 0;
    for (auto* sound : {s.devices.microphone.get(), s.devices.systemSound.get()}) {
        if (!sound)
            continue;
        auto kind = sound->kind();
        if (auto started = sound->start([&s, kind](SoundBlock&& b) { s.onSound(kind, std::move(b)); }))
            ++soundsStarted;
        else
            s.missing(started.error().sentence);
    }
    {
        std::unique_lock guard(s.lock);
        s.soundStarted.wait_for(guard, soundStartWait, [&] { return s.soundsFlowing >= soundsStarted; });
    }
    // The recorders start next, so their clocks run before the first frame.
    PointerSource* pointer = s.devices.pointer;
    if (!pointer) {
        s.stillPointer.emplace();
        pointer = &*s.stillPointer;
    }
    CursorRecorder::Display display{frame, screen.scale()};
    WindowFrameSource* windowFrames = s.devices.windowFrames;
    if (windowFrames)
        windowFrames = &s.shownFrames.emplace(*windowFrames, frame.size());
    CursorRecorder::Sources sources{pointer, s.devices.keyActivity, windowFrames, s.devices.clicks};
    s.cursor = std::make_unique<CursorRecorder>(display, screen.windowID(), sources);
    s.cursor->setFlushMovie(movie);
    s.cursor->start();
    if (settings.keycaps && s.devices.keys) {
        s.keystrokes = std::make_unique<KeystrokeRecorder>(*s.devices.keys);
        s.keystrokes->start();
    }

    s.writerThread = std::jthread([&s](std::stop_token stop) { s.writeLoop(stop); });
    if (s.keystrokes)
        s.flushThread = std::jthread([&s](std::stop_token stop) { s.flushLoop(stop); });
    auto undo = [&s] {
        s.stopSources();
        {
            std::lock_guard guard(s.lock);
            s.quitWriter = true;
            s.ended = true;
        }
        s.wake.notify_all();
        if (s.writerThread.joinable())
            s.writerThread.join();
        if (s.flushThread.joinable()) {
            s.flushThread.request_stop();
            s.flushThread.join();
        }
        s.cursor->stop();
        if (s.keystrokes)
            s.keystrokes->stop();
        s.writer->cancel();
        if (s.cameraWriter)
            s.cameraWriter->cancel();
        std::error_code ignored;
        removeTrackFiles(s.options.movie);
        s.finished = true;
    };

    if (s.devices.camera) {
        if (auto started = s.devices.camera->start([&s](CapturedFrame&& f) { s.onCameraFrame(std::move(f)); }); !started) {
            s.missing(started.error().sentence);
            s.devices.camera.reset();
        }
    }
    auto started = screen.start(settings.framesPerSecond, [&s](CapturedFrame&& f) { s.onFrame(std::move(f)); },
        [&s](const Error& error) { s.screenEnded(error); });
    if (!started) {
        undo();
        return std::unexpected(started.error());
    }
    return std::unique_ptr<CaptureSession>(new CaptureSession(std::move(impl)));
}

void CaptureSession::setPaused(bool paused)
{
    Impl& s = *m_impl;
    double now = systemUptime();
    {
        std::lock_guard guard(s.lock);
        if (s.finished)
            return;
        if (paused && !s.pauses.open)
            s.pauses.open = now;
        else if (!paused && s.pauses.open) {
            s.pauses.closed.emplace_back(*s.pauses.open, now);
            s.pauses.open.reset();
        } else
            return;
    }
    s.cursor->setPaused(paused);
    if (s.keystrokes)
        s.keystrokes->setPaused(paused);
}

bool CaptureSession::isPaused() const
{
    std::lock_guard guard(m_impl->lock);
    return m_impl->pauses.open.has_value();
}

void CaptureSession::mark() { m_impl->cursor->mark(); }

double CaptureSession::elapsed() const
{
    const Impl& s = *m_impl;
    std::lock_guard guard(s.lock);
    if (!s.firstTrackSeconds)
        return 0;
    double now = s.pauses.open ? *s.pauses.open : systemUptime();
    return std::max(0.0, s.trackSecondsAt(now) - *s.firstTrackSeconds);
}

int64_t CaptureSession::frames() const
{
    std::lock_guard guard(m_impl->lock);
    return m_impl->framesWritten;
}

Rect CaptureSession::subjectFrame() const { return m_impl->devices.screen->frame(); }

int64_t CaptureSession::droppedFrames() const
{
    std::lock_guard guard(m_impl->lock);
    return m_impl->framesDropped + (m_impl->devices.screen ? m_impl->devices.screen->droppedFrames() : 0);
}

Outcome<RawPlim> CaptureSession::finish()
{
    Impl& s = *m_impl;
    if (s.finished)
        return Outcome<RawPlim>::failed(neverStarted);
    s.finished = true;
    // 1. The cursor recorder stops first and hands over its track, then the sources.
    CursorTrack track = s.cursor->stop();
    s.cursor->setFlushMovie(std::nullopt);
    s.stopSources();
    if (s.flushThread.joinable()) {
        s.flushThread.request_stop();
        s.flushThread.join();
    }
    {
        std::lock_guard guard(s.lock);
        s.quitWriter = true;
    }
    s.wake.notify_all();
    if (s.writerThread.joinable())
        s.writerThread.join();

    // The writer finishes.
    const fs::path& movie = s.options.movie;
    if (!s.writer) {
        if (s.keystrokes)
            s.keystrokes->stop();
        return Outcome<RawPlim>::failed(neverStarted);
    }
    Status finished = s.writer->finish();
    if (s.cameraWriter) {
        if (auto camera = s.cameraWriter->finish(); !camera)
            s.missing(camera.error().sentence + " The plim is kept without its camera.");
    }

    RawPlim plim;
    plim.movie = movie;
    plim.subject = s.settings.subject;
    plim.width = s.width;
    plim.height = s.height;
    std::optional<double> firstFrame;
    std::optional<double> cameraStart;
    {
        std::lock_guard guard(s.lock);
        plim.frames = s.framesWritten;
        plim.droppedFrames = s.framesDropped + s.devices.screen->droppedFrames();
        if (plim.droppedFrames > 0)
            logLine(LogArea::main, std::to_string(plim.droppedFrames) + (plim.droppedFrames == 1 ? " frame was" : " frames were") + " dropped: "
                    + std::to_string(s.devices.screen->droppedFrames()) + " ticks passed while a picture was being taken, "
                    + std::to_string(s.framesDropped) + " pictures found the encoder's queue full.");
        plim.seconds = s.framesWritten > 0 ? s.writtenSeconds + 1.0 / s.settings.framesPerSecond : 0;
        plim.failure = s.failure;
        firstFrame = s.firstFrameUptime;
        cameraStart = s.cameraFirstUptime;
        if (s.failureBeforeFirstFrame) {
            if (s.keystrokes)
                s.keystrokes->stop();
            std::error_code ignored;
            fs::remove(movie, ignored);
            removeTrackFiles(movie);
            return Outcome<RawPlim>::failed(*s.failure);
        }
    }

    // 2. No frame: nothing to keep.
    if (plim.frames == 0) {
        if (s.keystrokes)
            s.keystrokes->stop();
        std::error_code ec;
        removeTrackFiles(movie);
        fs::remove(sidecarPath(movie, PlimFiles::camera), ec);
        if (fs::exists(movie) && !fs::remove(movie, ec))
            logLine(LogArea::main, "could not remove empty plim file at " + movie.string());
        return Outcome<RawPlim>::failed(noFrames);
    }
    if (!finished) {
        // A kept fragmented movie still plays up to its last fragment.
        if (!plim.failure)
            plim.failure = finished.error().kind == Error::Kind::noSpace
                ? "The disk filled while rolling at " + lengthText(plim.seconds)
                : std::string("The plim file could not be written.");
        logLine(LogArea::main, "finishing the screen movie failed: "
                + (finished.error().sentence.empty() ? std::string(unknownWriterError) : finished.error().sentence));
        if (!fs::exists(movie))
            return Outcome<RawPlim>::failed(finished.error().sentence.empty() ? std::string(unknownWriterError)
                                                                              : finished.error().sentence);
    }

    // 3. Offsets, the cursor track, the identity, the keystroke track.
    track.videoStartOffsetMS = static_cast<int64_t>((*firstFrame - s.cursor->startUptime()) * 1000.0);
    if (cameraStart && fs::exists(sidecarPath(movie, PlimFiles::camera))) {
        track.cameraOffsetMS = static_cast<int64_t>((*firstFrame - *cameraStart) * 1000.0);
        plim.hasCamera = true;
    }
    if (auto written = track.write(movie); !written)
        s.missing(written.error().sentence
            + (fs::exists(CursorTrack::journalBeside(movie))
                    ? " The movie is kept, and its pointer, clicks and marks as far as their journal reached;"
                    : " The movie is kept, but the pointer, clicks and marks of this plim are lost;")
            + " free some disk space before the next recording.");
    if (s.options.ensureIdentity)
        s.options.ensureIdentity(movie);
    if (s.keystrokes) {
        KeystrokeTrack keys = s.keystrokes->stop();
        if (auto written = keys.write(movie); !written)
            s.missing(written.error().sentence + " The movie is kept, but the keys pressed in this plim are lost;"
                      " free some disk space before the next recording.");
    }
    return Outcome<RawPlim>::finished(std::move(plim));
}

} // namespace plim
