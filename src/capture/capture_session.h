#pragma once
// One recording: the screen frames into the screen movie, the pointer and keys into their
// tracks, the microphone and the computer's sound into the movie's two sound tracks, all
// anchored to the capture instant of the first frame. Pauses leave their spans out of the
// movie, both sound tracks and both recorders' clocks, so movie time and track time differ
// only by videoStartOffsetMS.
//
// Threads: frames arrive on the screen source's thread and sound on each sound source's
// thread; they are handed through one bounded queue to the session's writer thread
// ("plim.capture.write"), which alone talks to the MovieWriter and where pictures are
// scaled to the movie's size. A frame that finds the queue full is dropped and counted.
// Control calls (setPaused, mark, finish) come from one controlling thread. `onEnded` runs
// once, on a capture thread, when the recording stops by itself (the window closed, the
// disk filled, the writer failed); the controller then calls finish().

#include "base/error.h"
#include "capture/camera_source.h"
#include "capture/capture_quality.h"
#include "capture/click_source.h"
#include "capture/cursor_recorder.h"
#include "capture/desktop.h"
#include "capture/key_activity_source.h"
#include "capture/key_source.h"
#include "capture/keystroke_recorder.h"
#include "capture/pointer_source.h"
#include "capture/screen_source.h"
#include "capture/sound_source.h"
#include "capture/window_frame_source.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plim {


// What the user asked to record, and how.
struct CaptureSettings {
    ScreenSubject subject;
    std::optional<std::string> display; // the X display; $DISPLAY when absent
    DesktopBackend backend = DesktopBackend::automatic;
    CaptureQuality quality = CaptureQuality::native;
    int framesPerSecond = 60;
    double bitRateScale = 1.0;
    bool keycaps = true;
    bool microphone = false;
    std::optional<std::string> microphoneDevice;
    bool systemSound = false;
    std::optional<std::string> systemSoundDevice;
    bool camera = false;
    std::optional<std::string> cameraDevice;
};

// The devices a session reads. openDevices() makes the desktop's (desktop.h), PulseAudio and
// Video4Linux2 ones; tests may hand in their own. Inputs that are absent are not recorded.
struct CaptureDevices {
    std::unique_ptr<ScreenSource> screen;
    std::shared_ptr<void> inputOwner; // keeps the pointer, key-activity, window-frame, click and key sources alive
    PointerSource* pointer = nullptr;
    KeyActivitySource* keyActivity = nullptr;
    WindowFrameSource* windowFrames = nullptr;
    ClickSource* clicks = nullptr;
    KeySource* keys = nullptr;
    std::unique_ptr<SoundSource> microphone;
    std::unique_ptr<SoundSource> systemSound;
    std::unique_ptr<CameraSource> camera;
    // A sentence for each input asked for that could not open; the session reports them.
    std::vector<std::string> missing;
};

// Opens what the settings ask for. The screen must open (its sentence is the failure); an
// input that cannot open is left out, with its sentence in `missing`.
Result<CaptureDevices> openDevices(const CaptureSettings& settings);

// What a finished recording left in the library folder.
struct RawPlim {
    std::filesystem::path movie;
    double seconds = 0; // movie length, paused spans left out
    ScreenSubject subject;
    int width = 0;
    int height = 0;
    int64_t frames = 0;
    int64_t droppedFrames = 0;
    bool hasCamera = false;
    // Set when the recording ended by itself: "That window is gone.", "The disk filled
    // while rolling at 0:12" ...; what was written up to then is kept.
    std::optional<std::string> failure;
};

class CaptureSession {
public:
    struct Options {
        std::filesystem::path movie; // the screen movie's path (library folder/B.mov)
        // Makes sure the plim's identity file exists beside the movie; run during finishing
        // after the cursor track is written. A failure is logged, never fatal.
        std::function<void(const std::filesystem::path& movie)> ensureIdentity;
        std::function<void(const std::string& headline)> onEnded;
        // An input or side file that was asked for is not being recorded: one whole
        // sentence, also logged. Runs on the starting thread, a capture thread or the
        // finishing thread; it should only hand the sentence over.
        std::function<void(const std::string& sentence)> onMissing;
        int queueDepth = 6;
    };

    // Resolves sizes, creates the movie, starts the recorders and then the sources (so the
    // cursor recorder's clock starts before the first frame). Fails with the sentence of
    // the first thing that cannot start; nothing is left behind then.
    static Result<std::unique_ptr<CaptureSession>> start(const CaptureSettings& settings, CaptureDevices devices,
        Options options);
    ~CaptureSession();
    CaptureSession(const CaptureSession&) = delete;
    CaptureSession& operator=(const CaptureSession&) = delete;

    void setPaused(bool paused);
    bool isPaused() const;
    void mark();
    // Seconds recorded so far, paused spans left out (counts from the first frame).
    double elapsed() const;
    int64_t frames() const;
    int64_t droppedFrames() const;
    // The subject's rectangle on the screen as recorded (an area is clipped to the screen).
    Rect subjectFrame() const;

    // Stops everything and finalises in order: cursor track taken, writer finished,
    // offsets set, cursor track written, identity made, keystroke track written. Once only.
    Outcome<RawPlim> finish();

    // Formats a recorded length for headlines ("0:07", "1:02:03"); "an unknown length"
    // for a time that cannot be told.
    static std::string lengthText(double seconds);

    class Impl;

private:
    explicit CaptureSession(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};

} // namespace plim
