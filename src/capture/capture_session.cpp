// The capture session's controls and states: starting in order (writers, recorders, then
// the sources), pausing, marks, the counts, ending by itself and undoing a start that
// failed. The writers, the sound routing and finishing are in session/.

#include "capture/capture_session.h"

#include "base/clock.h"
#include "base/files.h"
#include "base/log.h"
#include "capture/desktop.h"
#include "capture/recording_marker.h"
#include "capture/session/session_state.h"

#include <sys/statvfs.h>

#include <cmath>
#include <cstdio>

namespace plim {

using namespace session;

namespace {

constexpr uint64_t minimumFreeBytes = 256 * 1024;
// Sound blocks the queue holds besides its pictures: some seconds of the sources' chunks.
constexpr size_t soundRoom = 4096;
constexpr std::chrono::seconds soundStartWait{3}; // a monitor of an idle sink may take two

} // namespace

void session::removeTrackFiles(const fs::path& movie)
{
    std::error_code ignored;
    fs::remove(KeystrokeTrack::fileBeside(movie), ignored);
    fs::remove(CursorTrack::fileBeside(movie), ignored);
    fs::remove(CursorTrack::journalBeside(movie), ignored);
}

Result<CaptureDevices> openDevices(const CaptureSettings& settings)
{
    CaptureDevices devices;
    auto desktop = PLIM_TRY(Desktop::create(settings.display, settings.backend));
    devices.screen = PLIM_TRY(desktop->screen(settings.subject));
    if (auto inputs = desktop->inputs()) {
        devices.pointer = inputs->pointer;
        devices.keyActivity = inputs->keyActivity;
        devices.windowFrames = inputs->windowFrames;
        devices.clicks = inputs->clicks;
        devices.keys = inputs->keys;
        devices.inputOwner = std::move(inputs->owner);
        devices.missing = std::move(inputs->missing);
    } else if (inputs.error().kind == Error::Kind::refused) {
        // A desktop that hands out no inputs at all: the user hears why, and the screen rolls on.
        devices.missing.push_back(inputs.error().sentence);
    } else {
        logLine(LogArea::main, inputs.error().sentence);
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

void CaptureSession::Impl::endWith(std::string headline, bool beforeFirstFrame)
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
    queue->close();
    logLine(LogArea::main, "the recording stopped by itself: " + headline);
    if (notify)
        notify(headline);
}

// The window closed ("That window is gone."), the desktop stopped sharing the screen, or
// the picture stopped coming.
void CaptureSession::Impl::screenEnded(const Error& error)
{
    if (error.kind == Error::Kind::missing) {
        endWith(error.sentence);
        return;
    }
    if (error.kind != Error::Kind::stopped)
        logLine(LogArea::main, error.sentence);
    double recorded;
    {
        std::lock_guard guard(lock);
        recorded = writtenSeconds;
    }
    std::string headline = "Recording ended early at " + lengthText(recorded);
    if (error.kind == Error::Kind::stopped)
        headline += " because " + error.sentence;
    endWith(std::move(headline));
}

void CaptureSession::Impl::stopSources()
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

// Undoes a start whose screen would not roll: nothing is left behind.
void CaptureSession::Impl::undoStart()
{
    stopSources();
    {
        std::lock_guard guard(lock);
        ended = true;
    }
    queue->close();
    if (writerThread.joinable())
        writerThread.join();
    if (flushThread.joinable()) {
        flushThread.request_stop();
        flushThread.join();
    }
    cursor->stop();
    if (keystrokes)
        keystrokes->stop();
    writer->cancel();
    if (cameraWriter)
        cameraWriter->cancel();
    removeTrackFiles(options.movie);
    RecordingMarker::remove(options.movie);
    finished = true;
}

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
    const auto depth = size_t(std::max(1, s.options.queueDepth));
    s.queue = std::make_unique<BoundedQueue<QueueItem>>(depth + soundRoom, depth);

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

    const auto& movie = s.options.movie;
    std::error_code ec;
    fs::create_directories(movie.parent_path(), ec);
    struct statvfs space{};
    if (statvfs(movie.parent_path().c_str(), &space) == 0
        && uint64_t(space.f_bavail) * uint64_t(space.f_frsize) < minimumFreeBytes)
        return fail(diskFullBeforeFirstFrame, Error::Kind::noSpace);
    // The marker goes first, so no movie of a rolling recording is ever without it.
    if (auto marked = RecordingMarker::ofThisProcess(settings.keycaps && s.devices.keys).write(movie); !marked)
        logLine(LogArea::main, "the recording's marker could not be written (" + marked.error().sentence
                + "); a kill would leave the plim for the user to find");
    if (auto opened = s.openWriters(); !opened) {
        RecordingMarker::remove(movie);
        return std::unexpected(opened.error());
    }

    for (const auto& sentence : s.devices.missing)
        s.missing(sentence);
    // The sound streams start first and the recorders and the picture only once they flow
    // (or a few seconds have passed), so the sound covers the movie from its first frame
    // and the tracks' clocks start just before it. Their blocks wait in the queue.
    s.startSound(soundStartWait);
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
    s.flushThread = std::jthread([&s](std::stop_token stop) { s.flushLoop(stop); });

    if (s.devices.camera) {
        if (auto started = s.devices.camera->start([&s](CapturedFrame&& f) { s.onCameraFrame(std::move(f)); }); !started) {
            s.missing(started.error().sentence);
            s.devices.camera.reset();
        }
    }
    auto started = screen.start(settings.framesPerSecond, [&s](CapturedFrame&& f) { s.onFrame(std::move(f)); },
        [&s](const Error& error) { s.screenEnded(error); });
    if (!started) {
        s.undoStart();
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

} // namespace plim
