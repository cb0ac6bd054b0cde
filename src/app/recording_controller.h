#pragma once
// Takes a recording from the user's request to a finished plim: the preflight, the
// countdown, the capture session, pause, marks, replim and stop, the moment in the
// suite's history and the beacon that tells the suite's other apps whether Plim is
// recording.
//
// Threads: every call comes from one controlling thread (the interface's, or plimctl's
// main loop). The capture session's own threads are its business; when it stops by
// itself it says so through `onEndedEarly`, which runs on a capture thread and should
// only hand the news over to the controlling thread.

#include "base/error.h"
#include "capture/capture_session.h"
#include "suite/beacon.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace plim {

class SuiteGraphWriter;

class RecordingController {
public:
    enum class Phase { idle, starting, rolling, staging, failed };

    struct Environment {
        std::filesystem::path libraryFolder;
        // Opens the devices of a recording; the desktop's, PulseAudio and V4L2 ones by default.
        std::function<Result<CaptureDevices>(const CaptureSettings&)> openDevices = plim::openDevices;
        std::function<void(const std::filesystem::path& movie)> ensureIdentity;
        BeaconBroadcaster* beacon = nullptr;  // may be null
        SuiteGraphWriter* moments = nullptr;  // may be null
        std::function<void(const std::string& headline)> onEndedEarly;
        // Something asked for (the microphone, the camera, a side file) is not recorded:
        // one whole sentence. Runs on any thread, like onEndedEarly.
        std::function<void(const std::string& sentence)> onInputMissing;
        std::function<void(int secondsLeft)> onCountdown;
        // Receives the finished raw plim and the failure it came with, if any.
        std::function<void(const RawPlim&, const std::optional<std::string>& failure)> onPlimFinished;
        // Plain clock for the countdown's one-second steps; tests shorten it.
        double countdownStep = 1.0;
    };

    explicit RecordingController(Environment environment);
    ~RecordingController();

    // The lines that keep a recording from starting on this computer: no desktop to read
    // (through `backend`), no writable library folder. Empty when it may start.
    static std::vector<std::string> preflightBlockingLines(const std::optional<std::string>& display,
        const std::filesystem::path& libraryFolder, DesktopBackend backend = DesktopBackend::automatic);

    // Runs the preflight, counts down (`countdownSeconds`, interrupted by `cancel`) and
    // starts the capture. Fails with the blocking lines or the capture's sentence; the
    // phase is then idle (refused, cancelled) or failed.
    Status record(const CaptureSettings& settings, int countdownSeconds, std::stop_token cancel = {});

    void togglePause();
    void mark();
    // Throws the running recording away and starts the same subject again (no countdown).
    Status replim();
    // Stops the recording and hands over the plim; `early` is the failure that ended it.
    Outcome<RawPlim> finishRolling(std::optional<std::string> early = std::nullopt);
    void dismissFailure();

    // Records the finished plim in the suite's history with its name, duration and subject.
    void noteFinished(const RawPlim& plim);
    void settleAfterPlim(const std::optional<std::string>& failure);

    Phase phase() const { return m_phase; }
    bool isPaused() const;
    double elapsed() const;
    int markCount() const { return m_markCount; }
    std::optional<int> countdown() const { return m_countdown; }
    const std::optional<std::string>& failure() const { return m_failure; }
    const std::optional<std::filesystem::path>& movie() const { return m_movie; }
    CaptureSession* session() { return m_session.get(); }

    // "Plim 2026-11-23 at 09.41.05" for that local time; " 2", " 3" ... when taken.
    static std::filesystem::path newMoviePath(const std::filesystem::path& folder, std::time_t now);
    static std::string subjectDescription(const ScreenSubject& subject);

private:
    Status startCapture();
    void broadcast();

    Environment m_env;
    Phase m_phase = Phase::idle;
    std::optional<int> m_countdown;
    int m_markCount = 0;
    std::optional<std::string> m_failure;
    std::optional<CaptureSettings> m_settings;
    std::optional<std::filesystem::path> m_movie;
    std::unique_ptr<CaptureSession> m_session;
    double m_startWall = 0; // wall-clock seconds at the first frame, for the beacon's anchor
};

} // namespace plim
