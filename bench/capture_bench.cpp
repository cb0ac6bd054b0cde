// Records a 1920 x 1080 Xvfb display at 60 fps for 30 s (or the seconds given) while the
// picture changes on every frame, first with `plimctl record`, then with ffmpeg's x11grab
// into the same encoder settings (libx264 ultrafast, the recording bit rate, a key frame
// every 2 s, a fragmented QuickTime movie). Prints delivered against expected frames,
// dropped frames and the CPU seconds each recorder used. Plim records twice: at the display's
// size and at 720p. Then Plim records a 1920 x 1080 GNOME desktop (mutter headless, the real
// desktop portal, PipeWire) through the portal while a full-screen terminal scrolls, and
// prints the pictures the stream delivered a second, the copies made of them before the
// encoder, the movie's frames and the CPU seconds. Before the portal, Plim records a headless sway at
// 1920 x 1080 through wlr-screencopy while a full-screen window (wayland_bars, beside this
// program) shows the X11 part's moving bars, and prints the movie's frames, the drops, its
// CPU per frame beside the X11 figure (and its screen source's thread's, the part that
// differs between the backends, beside X11's) and sway's CPU.
//
//   capture_bench [seconds]
//
// With CAPTURE_BENCH_KEEP set, the movies stay in the folder it prints at the end.

#include "base/clock.h"
#include "processes.h"
#include "media/media.h"
#include "testkit/gnome_session.h"
#include "testkit/servers.h"

#include <xcb/xcb.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
using plim::bench::spawn;
using plim::bench::startXvfb;
using namespace std::chrono_literals;

// Waits for the child and gives its CPU seconds (user + system).
double waitCpu(pid_t pid, int* status)
{
    rusage usage{};
    wait4(pid, status, 0, &usage);
    return double(usage.ru_utime.tv_sec) + usage.ru_utime.tv_usec / 1e6 + double(usage.ru_stime.tv_sec)
        + usage.ru_stime.tv_usec / 1e6;
}

std::string slurp(const fs::path& path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

long countFrames(const fs::path& movie)
{
    std::string cmd = "ffprobe -v error -count_packets -select_streams v:0 -show_entries stream=nb_read_packets "
                      "-of default=nw=1:nk=1 '" + movie.string() + "'";
    FILE* p = popen(cmd.c_str(), "r");
    long n = 0;
    if (p) {
        if (std::fscanf(p, "%ld", &n) != 1)
            n = 0;
        pclose(p);
    }
    return n;
}

// Changes every pixel of the root window 60 times a second: moving colour bars.
void animate(const std::string& display, std::atomic<bool>& stop)
{
    plim::bench::RootPainter painter(display);
    xcb_connection_t* c = painter.connection();
    double next = plim::systemUptime();
    for (uint32_t frame = 0; !stop.load(); ++frame) {
        painter.bars(frame, 0, 48, 1080);
        xcb_flush(c);
        next += 1.0 / 60;
        double wait = next - plim::systemUptime();
        if (wait > 0)
            std::this_thread::sleep_for(std::chrono::duration<double>(wait));
    }
}

// A number that follows `label` in `text`, else -1.
long numberAfter(const std::string& text, const std::string& label)
{
    auto at = text.rfind(label);
    return at == std::string::npos ? -1 : std::atol(text.c_str() + at + label.size());
}

// Plim through the desktop portal of a headless GNOME session.
void benchPortal(const fs::path& plimctl, const fs::path& dir, double seconds)
{
    plim::testkit::XdgSandbox sandbox;
    plim::testkit::GnomeSession gnome("1920x1080");
    if (!gnome.isUp()) {
        std::printf("portal  : not measured, the GNOME session did not start (%s)\n", gnome.trouble().c_str());
        return;
    }
    gnome.startClient({"foot", "--fullscreen", "sh", "-c", "while :; do base64 -w 230 /dev/urandom; done"});
    const std::string grant = gnome.grantScreenCast();
    fs::create_directories(sandbox.home() / ".config/plim");
    plim::testkit::writeText(sandbox.home() / ".config/plim/settings.json",
        "{\"screenCastRestoreToken\": \"" + grant + "\"}\n");
    const fs::path library = dir / "plim-portal";
    fs::create_directories(library);
    gnome.handOver(sandbox.home());
    gnome.handOver(library);
    gnome.handOver(dir);
    for (const std::string& variable : gnome.environment())
        ::putenv(strdup(variable.c_str()));
    std::this_thread::sleep_for(1s); // the terminal fills the screen
    char duration[32];
    std::snprintf(duration, sizeof duration, "%g", seconds);
    int status = 0;
    pid_t plim = spawn(gnome.asUser({plimctl.string(), "record", "--backend", "portal", "--duration", duration,
                           "--no-keys", "--library", library.string()}),
        (dir / "portal.out").string(), (dir / "portal.err").string());
    const double cpu = waitCpu(plim, &status);
    std::string movie = slurp(dir / "portal.out");
    movie = movie.substr(0, movie.find('\n'));
    const long frames = countFrames(movie);
    const std::string err = slurp(dir / "portal.err");
    const long copied = numberAfter(err, "the desktop portal's stream: ");
    const long empty = numberAfter(err, "frames delivered, ");
    std::printf("portal  : %.1f pictures a second from the stream (%ld in %.0f s, %ld empty buffers skipped), "
                "%ld movie frames of %ld ticks, %.2f copies per movie frame before the encoder, %.2f CPU s "
                "(%.0f%% of one core), exit %d\n",
        copied / seconds, copied, seconds, empty, frames, std::lround(seconds * 60),
        frames > 0 ? double(copied) / double(frames) : 0.0, cpu, 100 * cpu / seconds, WEXITSTATUS(status));
    if (copied < 0 || WEXITSTATUS(status) == 1)
        std::printf("          %s\n", err.substr(err.size() > 600 ? err.size() - 600 : 0).c_str());
}

// CPU seconds (user + system) in a /proc stat file so far, and the name there; -1 when it is gone.
double statCpu(const fs::path& path, std::string* name = nullptr)
{
    std::string stat = slurp(path);
    auto open = stat.find('('), close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos)
        return -1;
    if (name)
        *name = stat.substr(open + 1, close - open - 1);
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14)
            utime = std::stoull(field);
        if (i == 15)
            stime = std::stoull(field);
    }
    return double(utime + stime) / double(sysconf(_SC_CLK_TCK));
}

// CPU seconds (user + system) a running process has used so far; -1 when it is gone.
double processCpu(int pid)
{
    return statCpu("/proc/" + std::to_string(pid) + "/stat");
}

// The CPU seconds of a recorder's screen-source thread ("plim.capture.vi", the part that
// differs between backends), sampled every 50 ms while it runs: the last sample, so up to
// 50 ms of its end go uncounted.
class CaptureThreadCpu {
public:
    explicit CaptureThreadCpu(pid_t pid)
        : m_sampler([this, pid](std::stop_token stop) {
              const fs::path tasks = "/proc/" + std::to_string(pid) + "/task";
              while (!stop.stop_requested()) {
                  std::error_code ec;
                  for (const auto& task : fs::directory_iterator(tasks, ec)) {
                      std::string name;
                      const double cpu = statCpu(task.path() / "stat", &name);
                      if (name == "plim.capture.vi" && cpu >= 0)
                          m_byThread[task.path().filename().string()] = cpu;
                  }
                  std::this_thread::sleep_for(50ms);
              }
          })
    {
    }
    // Once the recorder has ended.
    double seconds()
    {
        m_sampler.request_stop();
        m_sampler.join();
        double sum = 0;
        for (const auto& [thread, cpu] : m_byThread)
            sum += cpu;
        return sum;
    }

private:
    std::map<std::string, double> m_byThread;
    std::jthread m_sampler;
};

// Packets of the movie's video small enough to be a picture repeated unchanged.
long repeatedPictures(const fs::path& movie)
{
    std::string cmd = "ffprobe -v error -select_streams v:0 -show_entries packet=size -of csv=p=0 '" + movie.string() + "'";
    FILE* p = popen(cmd.c_str(), "r");
    long repeated = 0, size = 0;
    if (p) {
        while (std::fscanf(p, "%ld", &size) == 1)
            repeated += size < 200;
        pclose(p);
    }
    return repeated;
}

// Plim through wlr-screencopy of a headless sway showing `bars` (the wayland_bars window);
// `x11CpuPerFrame` and `x11CaptureThreadPerFrame` are the X11 recording's.
void benchWlr(const fs::path& plimctl, const fs::path& bars, const fs::path& dir, double seconds, double x11CpuPerFrame,
    double x11CaptureThreadPerFrame)
{
    if (!fs::exists(bars)) {
        std::printf(
            "wlr     : not measured, %s is missing (built with capture_bench where Wayland is)\n", bars.c_str());
        return;
    }
    // The window counts its pictures into sway's home, the runtime folder.
    plim::testkit::SwayServer sway("1920x1080", bars.string() + " \"$HOME/bars.count\"");
    if (!sway.isUp()) {
        std::printf("wlr     : not measured, sway did not start (%s)\n", sway.trouble().c_str());
        return;
    }
    std::this_thread::sleep_for(1s); // the window fills the screen
    char duration[32];
    std::snprintf(duration, sizeof duration, "%g", seconds);
    std::vector<std::string> argv{"env", "XDG_SESSION_TYPE=wayland"};
    for (const std::string& variable : sway.environment())
        argv.push_back(variable);
    const fs::path library = dir / "plim-wlr";
    argv.insert(argv.end(), {plimctl.string(), "record", "--backend", "wlr", "--duration", duration, "--no-keys",
                                "--library", library.string()});
    const double swayBefore = processCpu(sway.pid());
    auto barsCount = [&] {
        std::pair<double, double> count{-1, 0};
        std::istringstream(slurp(sway.runtimeDir() / "bars.count")) >> count.first >> count.second;
        return count;
    };
    const auto barsBefore = barsCount();
    int status = 0;
    pid_t plim = spawn(argv, (dir / "wlr.out").string(), (dir / "wlr.err").string());
    CaptureThreadCpu captureThread(plim);
    const double cpu = waitCpu(plim, &status);
    const double captureCpu = captureThread.seconds();
    const double swayCpu = processCpu(sway.pid()) - swayBefore;
    const auto barsAfter = barsCount();
    std::string movie = slurp(dir / "wlr.out");
    movie = movie.substr(0, movie.find('\n'));
    const long frames = countFrames(movie);
    const long expected = std::lround(seconds * 60);
    const std::string err = slurp(dir / "wlr.err");
    long reportedDropped = -1;
    if (auto at = err.find(" frames, "); at != std::string::npos)
        reportedDropped = std::atol(err.c_str() + at + 9);
    const double perFrame = frames > 0 ? cpu / double(frames) : 0.0;
    std::printf("wlr     : %ld of %ld frames in the movie, %ld dropped (the recorder counted %ld), %ld of them a "
                "picture repeated unchanged, %.2f CPU s (%.0f%% of one core), exit %d\n",
        frames, expected, std::max(0L, expected - frames), reportedDropped, frames > 0 ? repeatedPictures(movie) : 0L,
        cpu, 100 * cpu / seconds, WEXITSTATUS(status));
    std::printf("          CPU per frame %.2f ms against X11's %.2f ms (%.2f times); sway %.2f CPU s (%.0f%% of one "
                "core)\n",
        1000 * perFrame, 1000 * x11CpuPerFrame, x11CpuPerFrame > 0 ? perFrame / x11CpuPerFrame : 0.0, swayCpu,
        100 * swayCpu / seconds);
    if (frames > 0 && x11CaptureThreadPerFrame > 0)
        std::printf("          the screen source's thread %.2f ms a frame against X11's %.2f ms (%.2f times)\n",
            1000 * captureCpu / double(frames), 1000 * x11CaptureThreadPerFrame,
            captureCpu / double(frames) / x11CaptureThreadPerFrame);
    if (barsBefore.first >= 0 && barsAfter.second > barsBefore.second)
        std::printf("          sway called for %.1f pictures a second from the bars window while Plim recorded\n",
            (barsAfter.first - barsBefore.first) / (barsAfter.second - barsBefore.second));
    // X11 copies one picture a frame; here a tick with nothing new copies none.
    if (const long copied = numberAfter(err, "wlr-screencopy: "); copied > 0)
        std::printf("          %ld pictures copied from sway (%.1f a second), the screen source's thread %.2f ms a "
                    "picture copied\n",
            copied, copied / seconds, 1000 * captureCpu / double(copied));
    if (auto at = err.find(" dropped: "); at != std::string::npos) {
        size_t from = err.rfind('\n', at);
        from = from == std::string::npos ? 0 : from + 1;
        std::printf("          %s\n", err.substr(from, err.find('\n', at) - from).c_str());
    }
    if (frames == 0 || WEXITSTATUS(status) == 1)
        std::printf("          %s\n", err.substr(err.size() > 600 ? err.size() - 600 : 0).c_str());
    // ffmpeg can read a wlroots desktop only through kmsgrab, which needs a DRM device.
    std::string devices;
    if (FILE* p = popen("ffmpeg -hide_banner -devices 2>/dev/null", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, p))
            devices += line;
        pclose(p);
    }
    const bool kmsgrab = devices.find(" kmsgrab ") != std::string::npos;
    std::printf("ffmpeg  : no wlr comparison, this ffmpeg has no wlroots screen input%s\n",
        !kmsgrab                   ? " and no kmsgrab"
            : fs::exists("/dev/dri") ? " (kmsgrab reads the DRM device, not the compositor, and is not measured here)"
                                     : " and its kmsgrab needs a DRM device (/dev/dri), which this machine lacks");
}

} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 30.0;
    const fs::path self = fs::read_symlink("/proc/self/exe");
    const fs::path plimctl = self.parent_path().parent_path() / "src" / "plimctl";
    char tmpl[] = "/tmp/plim-capture-bench-XXXXXX";
    const fs::path dir = mkdtemp(tmpl);
    const std::string display = ":" + std::to_string(100 + (getpid() * 13) % 800);

    pid_t xvfb = startXvfb(display, "1920x1080x24", dir.string());
    if (xvfb < 0)
        return 1;
    std::atomic<bool> stop{false};
    std::thread animator([&] { animate(display, stop); });
    std::this_thread::sleep_for(500ms);

    const long expected = std::lround(seconds * 60);
    const int64_t bitRate = plim::recordingBitsPerSecond(1920, 1080, 1.0);
    std::printf("capture_bench: %.0f s of a 1920x1080 display at 60 fps, picture changing every frame; "
                "libx264 %s at %lld b/s, key frame every 2 s\n",
        seconds, plim::recordingPreset, (long long)bitRate);

    // Plim, at the display's size and scaled to 720p (which scales on the writer's thread
    // and so should deliver as many frames).
    char duration[32];
    std::snprintf(duration, sizeof duration, "%g", seconds);
    ::setenv("PLIM_LOG", "stderr", 1); // the recorder's log says why frames were dropped
    double plimCpu = 0, plimCaptureCpu = 0;
    long nativeFrames = 0;
    for (const char* quality : {"native", "720p"}) {
        int status = 0;
        const fs::path library = dir / (std::string("plim-") + quality);
        pid_t plim = spawn({plimctl.string(), "record", "--x-display", display, "--duration", duration, "--no-keys",
                               "--quality", quality, "--library", library.string()},
            (dir / "plim.out").string(), (dir / "plim.err").string());
        CaptureThreadCpu captureThread(plim);
        double cpu = waitCpu(plim, &status);
        const double captureCpu = captureThread.seconds();
        if (plimCpu == 0) {
            plimCpu = cpu;
            plimCaptureCpu = captureCpu;
        }
        std::string movie = slurp(dir / "plim.out");
        movie = movie.substr(0, movie.find('\n'));
        long plimFrames = countFrames(movie);
        if (nativeFrames == 0)
            nativeFrames = plimFrames;
        std::string err = slurp(dir / "plim.err");
        long reportedDropped = -1;
        if (auto at = err.find(" frames, "); at != std::string::npos)
            reportedDropped = std::atol(err.c_str() + at + 9);
        std::printf("plim %-6s: %ld of %ld frames delivered, %ld dropped (the recorder counted %ld), %.2f CPU s (%.0f%% of one core), exit %d\n",
            quality, plimFrames, expected, std::max(0L, expected - plimFrames), reportedDropped, cpu, 100 * cpu / seconds,
            WEXITSTATUS(status));
        if (plimFrames > 0)
            std::printf("          the screen source's thread %.2f CPU s, %.2f ms a frame\n", captureCpu,
                1000 * captureCpu / double(plimFrames));
        if (auto at = err.find(" dropped: "); at != std::string::npos) {
            size_t from = err.rfind('\n', at);
            from = from == std::string::npos ? 0 : from + 1;
            std::printf("          %s\n", err.substr(from, err.find('\n', at) - from).c_str());
        }
    }

    // ffmpeg x11grab into the same encoder settings.
    const fs::path ffmovie = dir / "ffmpeg.mov";
    pid_t ff = spawn({"ffmpeg", "-y", "-v", "error", "-stats", "-f", "x11grab", "-framerate", "60", "-video_size",
                         "1920x1080", "-draw_mouse", "0", "-i", display, "-t", duration, "-c:v", "libx264", "-preset",
                         plim::recordingPreset, "-b:v", std::to_string(bitRate), "-g", "120", "-pix_fmt", "yuv420p",
                         "-movflags", "+frag_keyframe+empty_moov+default_base_moof", "-frag_duration", "2000000",
                         ffmovie.string()},
        (dir / "ff.out").string(), (dir / "ff.err").string());
    int status = 0;
    double ffCpu = waitCpu(ff, &status);
    long ffFrames = countFrames(ffmovie);
    std::string ffErr = slurp(dir / "ff.err");
    long ffDup = 0, ffDrop = 0;
    if (auto at = ffErr.rfind("dup="); at != std::string::npos)
        ffDup = std::atol(ffErr.c_str() + at + 4);
    if (auto at = ffErr.rfind("drop="); at != std::string::npos)
        ffDrop = std::atol(ffErr.c_str() + at + 5);
    // x11grab fills a late frame with a copy of the last one (dup); those are not delivered.
    long ffDelivered = ffFrames - ffDup;
    std::printf("ffmpeg  : %ld of %ld frames delivered, %ld dropped (ffmpeg: dup=%ld drop=%ld), %.2f CPU s (%.0f%% of one core), exit %d\n",
        ffDelivered, expected, std::max(0L, expected - ffDelivered), ffDup, ffDrop, ffCpu, 100 * ffCpu / seconds,
        WEXITSTATUS(status));
    std::printf("CPU plim (native) / ffmpeg: %.2f\n", ffCpu > 0 ? plimCpu / ffCpu : 0.0);

    stop = true;
    animator.join();
    kill(xvfb, SIGTERM);
    waitpid(xvfb, &status, 0);
    benchWlr(plimctl, self.parent_path() / "wayland_bars", dir, seconds,
        nativeFrames > 0 ? plimCpu / double(nativeFrames) : 0.0,
        nativeFrames > 0 ? plimCaptureCpu / double(nativeFrames) : 0.0);
    benchPortal(plimctl, dir, seconds);
    if (std::getenv("CAPTURE_BENCH_KEEP"))
        std::printf("movies kept in %s\n", dir.c_str());
    else
        fs::remove_all(dir);
    return 0;
}
