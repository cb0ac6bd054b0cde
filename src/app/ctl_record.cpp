#include "app/ctl_record.h"
#include "app/plimctl.h"
#include "app/recording_controller.h"
#include "app/recording_recovery.h"
#include "app/recording_services.h"

#include "base/log.h"
#include "base/places.h"
#include "base/settings.h"
#include "capture/capture.h"
#include "library/library.h"
#include "suite/suite.h"

#include <atomic>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <ostream>
#include <poll.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace plim {

namespace {

std::atomic<bool> stopRequested{false};
std::atomic<int> pauseRequests{0};
std::atomic<int> markRequests{0};

void onStopSignal(int) { stopRequested.store(true); }
void onPauseSignal(int) { pauseRequests.fetch_add(1); }
void onMarkSignal(int) { markRequests.fetch_add(1); }

std::optional<double> parseNumber(const std::string& text)
{
    double value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::optional<Rect> parseArea(const std::string& text)
{
    std::vector<double> parts;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        auto value = parseNumber(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (!value)
            return std::nullopt;
        parts.push_back(*value);
        if (comma == std::string::npos)
            break;
        start = comma + 1;
    }
    if (parts.size() != 4)
        return std::nullopt;
    return Rect{parts[0], parts[1], parts[2], parts[3]};
}

// Raw, unechoed keys from a terminal for the life of the object.
class TerminalKeys {
public:
    TerminalKeys()
    {
        if (!::isatty(STDIN_FILENO) || tcgetattr(STDIN_FILENO, &m_saved) != 0)
            return;
        termios raw = m_saved;
        raw.c_lflag &= ~tcflag_t(ICANON | ECHO);
        raw.c_cc[VMIN] = 0;
        raw.c_cc[VTIME] = 0;
        m_active = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
    }
    ~TerminalKeys()
    {
        if (m_active)
            tcsetattr(STDIN_FILENO, TCSANOW, &m_saved);
    }
    std::optional<char> next()
    {
        if (!m_active)
            return std::nullopt;
        char c = 0;
        return ::read(STDIN_FILENO, &c, 1) == 1 ? std::optional<char>(c) : std::nullopt;
    }

private:
    termios m_saved{};
    bool m_active = false;
};

std::string clockText(double seconds) { return CaptureSession::lengthText(seconds); }

} // namespace

int runRecordCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    auto parsed = parseCtlOptions(args,
        {"--display", "--window", "--area", "--x-display", "--backend", "--mic-device", "--sound-device", "--camera-device",
            "--quality", "--fps", "--countdown", "--duration", "--library"},
        {"--pick-window", "--mic", "--system-sound", "--camera", "--no-keys"}, "record");
    if (!parsed) {
        err << parsed.error().sentence << "\n";
        return 1;
    }
    const CtlOptions& o = *parsed;
    if (o.help) {
        err << "usage: plimctl record [--display NAME | --window ID | --pick-window | --area X,Y,W,H]\n"
               "       [--x-display :N] [--backend x11|portal|wlr] [--mic [--mic-device NAME]] [--system-sound [--sound-device SINK]]\n"
               "       [--camera [--camera-device PATH]] [--no-keys] [--quality native|2160p|1440p|1080p|720p]\n"
               "       [--fps 30|60] [--countdown SECONDS] [--duration SECONDS] [--library FOLDER]\n"
               "The backend is the session's (on Wayland wlr-screencopy where the compositor offers it, else the\n"
               "desktop portal; X11 elsewhere) unless --backend names one.\n"
               "Stops after --duration, on Ctrl-C or SIGTERM. While rolling, p or SIGUSR1 pauses and resumes,\n"
               "m or SIGUSR2 sets a mark, q stops. Exits 0 when everything asked for was recorded, 1 when\n"
               "nothing was or the recording ended early, 2 when the plim was kept without an input or\n"
               "side file that was asked for (standard error says which).\n";
        return 0;
    }

    const SettingsStore& stored = FileSettingsStore::shared();
    CaptureSettings settings;
    settings.display = o.last("--x-display");
    settings.quality = CaptureQualityRules::fromSettings(stored);
    settings.framesPerSecond = CaptureQualityRules::frameRateFromSettings(stored);
    if (auto q = o.last("--quality")) {
        if (*q != "native" && CaptureQualityRules::parse(*q) == CaptureQuality::native) {
            err << "plimctl record: --quality takes native, 2160p, 1440p, 1080p or 720p, not \"" << *q
                << "\". Nothing was recorded.\n";
            return 1;
        }
        settings.quality = CaptureQualityRules::parse(*q);
    }
    if (auto fps = o.last("--fps")) {
        auto value = parseNumber(*fps);
        if (value != 30.0 && value != 60.0) {
            err << "plimctl record: --fps takes 30 or 60, not \"" << *fps << "\". Nothing was recorded.\n";
            return 1;
        }
        settings.framesPerSecond = int(*value);
    }
    if (auto backend = o.last("--backend")) {
        if (*backend != "x11" && *backend != "wlr" && *backend != "portal") {
            err << "plimctl record: --backend takes x11, portal or wlr, not \"" << *backend << "\". Nothing was recorded.\n";
            return 1;
        }
        settings.backend = *backend == "x11" ? DesktopBackend::x11
            : *backend == "wlr"              ? DesktopBackend::wlr
                                             : DesktopBackend::portal;
    }
    settings.keycaps = !o.has("--no-keys");
    settings.microphone = o.has("--mic") || o.last("--mic-device").has_value();
    settings.microphoneDevice = o.last("--mic-device");
    settings.systemSound = o.has("--system-sound") || o.last("--sound-device").has_value();
    settings.systemSoundDevice = o.last("--sound-device");
    settings.camera = o.has("--camera") || o.last("--camera-device").has_value();
    settings.cameraDevice = o.last("--camera-device");

    int subjects = int(o.last("--display").has_value()) + int(o.last("--window").has_value())
        + int(o.has("--pick-window")) + int(o.last("--area").has_value());
    if (subjects > 1) {
        err << "plimctl record: pick one subject (--display, --window, --pick-window or --area). Nothing was recorded.\n";
        return 1;
    }
    settings.subject = ScreenSubject::display(o.last("--display").value_or(""));
    if (auto window = o.last("--window")) {
        unsigned long id = 0;
        try {
            id = std::stoul(*window, nullptr, 0);
        } catch (...) {
            err << "plimctl record: --window takes a window id such as 0x1e00007, not \"" << *window
                << "\". Nothing was recorded.\n";
            return 1;
        }
        settings.subject = ScreenSubject::window(uint32_t(id));
    }
    if (auto area = o.last("--area")) {
        auto rect = parseArea(*area);
        if (!rect) {
            err << "plimctl record: --area takes X,Y,WIDTH,HEIGHT such as 0,0,1280,720, not \"" << *area
                << "\". Nothing was recorded.\n";
            return 1;
        }
        settings.subject = ScreenSubject::areaOf(*rect);
    }
    if (o.has("--pick-window")) {
        auto desktop = Desktop::create(settings.display, settings.backend);
        if (!desktop) {
            err << desktop.error().sentence << "\n";
            return 1;
        }
        err << "Click the window to record.\n";
        auto picked = (*desktop)->pickWindow();
        if (!picked) {
            err << picked.error().sentence << "\n";
            return 1;
        }
        settings.subject = ScreenSubject::window(*picked);
    }
    std::optional<double> duration;
    if (auto d = o.last("--duration")) {
        duration = parseNumber(*d);
        if (!duration || !(*duration > 0) || !std::isfinite(*duration)) {
            err << "plimctl record: --duration takes a number of seconds above 0, not \"" << *d
                << "\". Nothing was recorded.\n";
            return 1;
        }
    }
    int countdown = 0;
    if (auto c = o.last("--countdown")) {
        auto value = parseNumber(*c);
        if (!value || *value < 0 || *value > 60) {
            err << "plimctl record: --countdown takes whole seconds from 0 to 60, not \"" << *c
                << "\". Nothing was recorded.\n";
            return 1;
        }
        countdown = int(*value);
    }

    // Which backend reads the screen and why; a desktop that cannot be read is the preflight's to say.
    if (auto desktop = Desktop::create(settings.display, settings.backend))
        err << (*desktop)->choice() << "\n";

    RecordingController::Environment env;
    env.libraryFolder = o.last("--library").has_value() ? fs::path(*o.last("--library"))
                                                        : StorageRoot::direct(Places::home()).folder();
    for (const auto& sentence : recoverAbandonedRecordings(env.libraryFolder))
        err << sentence << "\n";
    std::mutex endedLock;
    std::optional<std::string> endedEarly;
    std::vector<std::string> missing; // sentences not yet shown
    bool anyMissing = false;
    env.onEndedEarly = [&](const std::string& headline) {
        std::lock_guard guard(endedLock);
        endedEarly = headline;
    };
    auto noteMissing = [&](const std::string& sentence) {
        std::lock_guard guard(endedLock);
        missing.push_back(sentence);
    };
    env.onInputMissing = noteMissing;
    // Shows what is not being recorded where the user looks, on lines of their own.
    auto showMissing = [&](bool midLine) {
        std::lock_guard guard(endedLock);
        for (const auto& sentence : missing)
            err << (midLine ? "\n" : "") << sentence << "\n";
        if (!missing.empty())
            err << std::flush;
        anyMissing = anyMissing || !missing.empty();
        missing.clear();
    };
    env.onCountdown = [&](int left) { err << "Rolling in " << left << "...\n" << std::flush; };

    RecordingServices services;
    services.attach(env, noteMissing);

    stopRequested = false;
    pauseRequests = 0;
    markRequests = 0;
    struct sigaction action{};
    action.sa_handler = onStopSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = onPauseSignal;
    sigaction(SIGUSR1, &action, nullptr);
    action.sa_handler = onMarkSignal;
    sigaction(SIGUSR2, &action, nullptr);

    RecordingController controller(std::move(env));
    std::stop_source cancel;
    std::jthread watcher([&](std::stop_token stop) {
        while (!stop.stop_requested()) {
            if (stopRequested.load())
                cancel.request_stop();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    auto started = controller.record(settings, countdown, cancel.get_token());
    watcher.request_stop();
    showMissing(false);
    if (!started) {
        err << started.error().sentence << "\n";
        return 1;
    }
    // An area reaching past the screen is recorded clipped; say what is recorded.
    ScreenSubject recorded = settings.subject;
    if (recorded.kind == ScreenSubject::Kind::area && controller.session())
        recorded.area = controller.session()->subjectFrame();
    err << "Recording " << RecordingController::subjectDescription(recorded)
        << (recorded.area == settings.subject.area ? "" : " (the part of the asked area that is on the screen)")
        << " into " << controller.movie()->string() << "\n" << std::flush;

    TerminalKeys keys;
    std::optional<std::string> early;
    auto lastTick = std::chrono::steady_clock::now() - std::chrono::seconds(1);
    while (!stopRequested.load()) {
        {
            std::lock_guard guard(endedLock);
            early = endedEarly;
        }
        if (early)
            break;
        showMissing(true);
        int pauses = pauseRequests.exchange(0), marks = markRequests.exchange(0);
        while (auto key = keys.next()) {
            if (*key == 'p' || *key == ' ')
                ++pauses;
            else if (*key == 'm')
                ++marks;
            else if (*key == 'q')
                stopRequested = true;
        }
        for (int i = 0; i < pauses; ++i) {
            controller.togglePause();
            err << (controller.isPaused() ? "\nPaused at " : "\nResumed at ") << clockText(controller.elapsed()) << "\n";
        }
        for (int i = 0; i < marks; ++i) {
            controller.mark();
            err << "\nMark " << controller.markCount() << " at " << clockText(controller.elapsed()) << "\n";
        }
        double elapsed = controller.elapsed();
        if (duration && elapsed >= *duration)
            break;
        auto now = std::chrono::steady_clock::now();
        if (now - lastTick >= std::chrono::seconds(1)) {
            lastTick = now;
            err << "\r" << (controller.isPaused() ? "Paused  " : "Rolling ") << clockText(elapsed) << std::flush;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    err << "\n";
    auto outcome = controller.finishRolling(early);
    showMissing(false);
    if (!outcome.isFinished()) {
        err << outcome.sentence << "\n";
        return 1;
    }
    const RawPlim& plim = outcome.value;
    out << plim.movie.string() << "\n";
    char summary[160];
    std::snprintf(summary, sizeof summary, "%.2f s, %d x %d, %lld frames, %lld dropped", plim.seconds, plim.width,
        plim.height, (long long)plim.frames, (long long)plim.droppedFrames);
    err << "The plim landed at " << plim.movie.string() << " (" << summary << ").\n";
    if (plim.failure) {
        const std::string& headline = *plim.failure;
        err << headline << (headline.ends_with('.') ? "" : ".") << " What was recorded up to then is kept.\n";
        return 1;
    }
    if (anyMissing) {
        err << "Something asked for was not recorded; the lines above say what.\n";
        return 2;
    }
    return 0;
}

} // namespace plim
