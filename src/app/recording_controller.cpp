#include "app/recording_controller.h"

#include "base/files.h"
#include "base/log.h"
#include "capture/capture.h"
#include "suite/suite.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

namespace plim {

namespace {

double wallSeconds()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

} // namespace

RecordingController::RecordingController(Environment environment) : m_env(std::move(environment)) {}

RecordingController::~RecordingController()
{
    if (m_session)
        finishRolling();
}

std::vector<std::string> RecordingController::preflightBlockingLines(const std::optional<std::string>& display,
    const std::filesystem::path& libraryFolder, DesktopBackend backend)
{
    std::vector<std::string> lines;
    if (auto desktop = Desktop::create(display, backend); !desktop) {
        const char* named = display ? display->c_str() : std::getenv("DISPLAY");
        if (desktop.error().kind != Error::Kind::missing)
            lines.push_back(desktop.error().sentence);
        else if (named && *named)
            lines.push_back(std::string("There is no X display to record: the X server of display ") + named
                + " does not answer. Start it, or record a display whose X server is running.");
        else
            lines.push_back("There is no X display to record: DISPLAY is not set. Start Plim inside a graphical X "
                            "session.");
    }
    std::error_code ec;
    fs::create_directories(libraryFolder, ec);
    if (ec || ::access(libraryFolder.c_str(), W_OK) != 0)
        lines.push_back("The library folder " + libraryFolder.string() + " cannot be written"
            + (ec ? " (" + ec.message() + ")" : std::string()) + ". Make it writable or pick another videos folder.");
    return lines;
}

std::filesystem::path RecordingController::newMoviePath(const std::filesystem::path& folder, std::time_t now)
{
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[64];
    std::strftime(stamp, sizeof stamp, "Plim %Y-%m-%d at %H.%M.%S", &local);
    fs::path path = folder / (std::string(stamp) + ".mov");
    for (int n = 2; fs::exists(path); ++n)
        path = folder / (std::string(stamp) + " " + std::to_string(n) + ".mov");
    return path;
}

std::string RecordingController::subjectDescription(const ScreenSubject& subject)
{
    char text[128];
    switch (subject.kind) {
    case ScreenSubject::Kind::display:
        return subject.displayName.empty() ? "display" : "display " + subject.displayName;
    case ScreenSubject::Kind::window:
        // Id 0: the desktop's own dialog picks the window (the portal) and names no id.
        if (subject.windowID == 0)
            return "the window shared by the desktop";
        std::snprintf(text, sizeof text, "window 0x%x", subject.windowID);
        return text;
    case ScreenSubject::Kind::area:
        std::snprintf(text, sizeof text, "area %g,%g %gx%g", subject.area.x, subject.area.y, subject.area.width,
            subject.area.height);
        return text;
    case ScreenSubject::Kind::device:
        return "device " + subject.deviceName;
    }
    return "display";
}

Status RecordingController::record(const CaptureSettings& settings, int countdownSeconds, std::stop_token cancel)
{
    if (m_phase == Phase::starting || m_phase == Phase::rolling || m_phase == Phase::staging)
        return fail("A recording is already under way. Stop it before starting another.", Error::Kind::refused);
    if (settings.subject.kind == ScreenSubject::Kind::device)
        return fail("Presenting a plugged-in device is not in this release. Pick a display, a window or an area.",
            Error::Kind::refused);
    auto blocking = preflightBlockingLines(settings.display, m_env.libraryFolder, settings.backend);
    if (!blocking.empty()) {
        std::string lines;
        for (const auto& line : blocking)
            lines += (lines.empty() ? "" : "\n") + line;
        return fail(lines, Error::Kind::refused);
    }
    m_phase = Phase::starting;
    m_failure.reset();
    m_markCount = 0;
    for (int left = countdownSeconds; left > 0; --left) {
        m_countdown = left;
        if (m_env.onCountdown)
            m_env.onCountdown(left);
        auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(m_env.countdownStep);
        while (std::chrono::steady_clock::now() < until && !cancel.stop_requested())
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (cancel.stop_requested()) {
            m_countdown.reset();
            m_phase = Phase::idle;
            return fail("The recording was cancelled before it started. Nothing was recorded.", Error::Kind::stopped);
        }
    }
    m_countdown.reset();
    m_settings = settings;
    return startCapture();
}

Status RecordingController::startCapture()
{
    auto devices = m_env.openDevices(*m_settings);
    auto failWith = [this](const Error& error) -> Status {
        m_phase = Phase::failed;
        m_failure = error.sentence;
        broadcast();
        return std::unexpected(error);
    };
    if (!devices)
        return failWith(devices.error());
    m_movie = newMoviePath(m_env.libraryFolder, std::time(nullptr));
    CaptureSession::Options options;
    options.movie = *m_movie;
    options.ensureIdentity = m_env.ensureIdentity;
    options.onEnded = m_env.onEndedEarly;
    options.onMissing = m_env.onInputMissing;
    auto session = CaptureSession::start(*m_settings, std::move(*devices), std::move(options));
    if (!session)
        return failWith(session.error());
    m_session = std::move(*session);
    m_startWall = wallSeconds();
    m_phase = Phase::rolling;
    broadcast();
    return {};
}

void RecordingController::broadcast()
{
    if (!m_env.beacon)
        return;
    BeaconState state = BeaconState::idle();
    if (m_phase == Phase::rolling && m_session)
        state = m_session->isPaused() ? BeaconState::paused(m_session->elapsed())
                                      : BeaconState::rolling(wallSeconds() - m_session->elapsed());
    if (auto posted = m_env.beacon->broadcast(state); !posted)
        logLine(LogArea::main, "the beacon could not be posted: " + posted.error().sentence);
}

void RecordingController::togglePause()
{
    if (m_phase != Phase::rolling || !m_session)
        return;
    m_session->setPaused(!m_session->isPaused());
    broadcast();
}

bool RecordingController::isPaused() const { return m_session && m_session->isPaused(); }

double RecordingController::elapsed() const { return m_session ? m_session->elapsed() : 0; }

void RecordingController::mark()
{
    if (m_phase != Phase::rolling || !m_session || m_session->isPaused())
        return;
    m_session->mark();
    ++m_markCount;
}

Status RecordingController::replim()
{
    if (m_phase != Phase::rolling || !m_session || !m_settings)
        return fail("There is no recording to start again.", Error::Kind::refused);
    m_session->finish();
    m_session.reset();
    if (m_movie) {
        std::error_code ec;
        for (std::string_view suffix :
            {PlimFiles::cursor, PlimFiles::cursorJournal, PlimFiles::keys, PlimFiles::identity, PlimFiles::camera})
            fs::remove(sidecarPath(*m_movie, suffix), ec);
        fs::remove(*m_movie, ec);
    }
    m_markCount = 0;
    return startCapture();
}

Outcome<RawPlim> RecordingController::finishRolling(std::optional<std::string> early)
{
    if (!m_session)
        return Outcome<RawPlim>::failed("The recorder never started.");
    m_phase = Phase::staging;
    Outcome<RawPlim> outcome = m_session->finish();
    m_session.reset();
    std::optional<std::string> failure = early;
    if (outcome.isFinished()) {
        if (!failure)
            failure = outcome.value.failure;
        noteFinished(outcome.value);
        if (m_env.onPlimFinished)
            m_env.onPlimFinished(outcome.value, failure);
    } else {
        failure = outcome.sentence;
    }
    settleAfterPlim(outcome.isFinished() ? failure : std::optional<std::string>(outcome.sentence));
    return outcome;
}

void RecordingController::noteFinished(const RawPlim& plim)
{
    if (!m_env.moments)
        return;
    char detail[96];
    std::snprintf(detail, sizeof detail, "%.1f s", plim.seconds);
    auto recorded = m_env.moments->record("recorded", baseName(plim.movie), std::string(detail),
        {{"plim", baseName(plim.movie)}, {"subject", subjectDescription(plim.subject)}});
    if (!recorded)
        logLine(LogArea::moment, "the recording could not be noted in the history: " + recorded.error().sentence);
}

void RecordingController::settleAfterPlim(const std::optional<std::string>& failure)
{
    m_failure = failure;
    m_phase = failure ? Phase::failed : Phase::idle;
    m_countdown.reset();
    if (m_env.beacon) {
        if (auto posted = m_env.beacon->broadcast(BeaconState::idle()); !posted)
            logLine(LogArea::main, "the beacon could not be posted: " + posted.error().sentence);
    }
}

void RecordingController::dismissFailure()
{
    if (m_phase == Phase::failed) {
        m_phase = Phase::idle;
        m_failure.reset();
    }
}

} // namespace plim
