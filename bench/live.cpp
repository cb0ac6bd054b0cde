// Live composition of a changing 2560 x 1600 Xvfb display into 1920 x 1080 frames with the
// full default look (backdrop, shadowed rounded card, gliding pointer), as `plimctl live`
// runs it. The right half of the display shows colour bars moving every 1/60 s and the
// pointer circling; the left half flips between two colours every 250 ms. A sink reads
// each frame as it leaves the pipeline and times how long each flip took to show.
//
// Phase 1 (seconds given, default 20): the ladder walks as in a real run; its changes are
// printed. Phase 2 (10 s): pinned at the half-rate rung. Each prints frames delivered a
// second, the backpressure counters, this process's CPU and the X server's, and the
// latency from a screen change to the frame leaving the sink.

#include "base/clock.h"
#include "live/live.h"
#include "processes.h"

#include <xcb/xcb.h>

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr int screenWidth = 2560;
constexpr int screenHeight = 1600;
constexpr uint32_t flipColours[2] = {0x2050d0, 0xe0a020};

struct Flips {
    std::mutex lock;
    std::vector<std::pair<double, int>> times; // uptime when shown, colour index
};

// Moving bars on the right half every 1/60 s, the pointer circling over them, and the left
// half flipping colour every 250 ms (the time it is on screen is noted).
void animate(const std::string& display, std::atomic<bool>& stop, Flips& flips)
{
    plim::bench::RootPainter painter(display);
    xcb_connection_t* c = painter.connection();
    double next = plim::systemUptime();
    double nextFlip = next;
    int shown = 0;
    for (uint32_t frame = 0; !stop.load(); ++frame) {
        painter.bars(frame, screenWidth / 2, 32, screenHeight);
        const double angle = frame * 0.05;
        xcb_warp_pointer(c, XCB_NONE, painter.root(), 0, 0, 0, 0, int16_t(1920 + 300 * std::cos(angle)),
            int16_t(800 + 300 * std::sin(angle)));
        const bool flip = plim::systemUptime() >= nextFlip;
        if (flip) {
            shown = 1 - shown;
            painter.fill(flipColours[shown], 0, 0, screenWidth / 2, screenHeight);
            nextFlip += 0.25;
        }
        // A round trip: what was drawn is on the screen now.
        free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
        if (flip) {
            std::lock_guard l(flips.lock);
            flips.times.emplace_back(plim::systemUptime(), shown);
        }
        next += 1.0 / 60;
        double wait = next - plim::systemUptime();
        if (wait > 0)
            std::this_thread::sleep_for(std::chrono::duration<double>(wait));
    }
}

// Notes, for every frame, when it left and which flip colour the sample point shows.
class TimingSink final : public plim::LiveSink {
public:
    explicit TimingSink(plim::Point sample) : m_x(int(sample.x)), m_y(int(sample.y)) {}
    std::string name() const override { return "Bench"; }
    void consume(const plim::LiveFrame& frame) override
    {
        const uint8_t* p = frame.image.row(m_y) + m_x * 4;
        int colour = -1;
        for (int i = 0; i < 2; ++i) {
            const uint32_t c = flipColours[i];
            if (std::abs(p[2] - int(c >> 16 & 0xff)) + std::abs(p[1] - int(c >> 8 & 0xff)) + std::abs(p[0] - int(c & 0xff)) < 40)
                colour = i;
        }
        std::lock_guard l(m_lock);
        m_seen.emplace_back(plim::systemUptime(), colour);
    }
    plim::LiveSinkHealth health() const override { return {plim::LiveSinkHealth::Running{0}}; }
    void close() override {}

    std::vector<std::pair<double, int>> seen()
    {
        std::lock_guard l(m_lock);
        return m_seen;
    }

private:
    int m_x, m_y;
    std::mutex m_lock;
    std::vector<std::pair<double, int>> m_seen;
};

double cpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Latency of every flip shown between `from` and `to` (uptime): the first frame after the
// flip that shows its colour.
std::vector<double> latencies(const std::vector<std::pair<double, int>>& flips,
    const std::vector<std::pair<double, int>>& seen, double from, double to)
{
    std::vector<double> out;
    for (const auto& [at, colour] : flips) {
        if (at < from || at > to - 0.3)
            continue;
        auto shown = std::find_if(seen.begin(), seen.end(), [&](const auto& s) { return s.first >= at && s.second == colour; });
        if (shown != seen.end() && shown->first - at < 1.0)
            out.push_back(shown->first - at);
    }
    std::sort(out.begin(), out.end());
    return out;
}

struct Mark {
    double wall = 0;
    double cpu = 0;
    double xCpu = 0;
    plim::LivePipelineStats stats;
};

void report(const char* phase, const Mark& a, const Mark& b, const std::vector<double>& lat, int fps)
{
    const double wall = b.wall - a.wall;
    const auto& s = b.stats.backpressure;
    const auto& r = a.stats.backpressure;
    const double frames = double(b.stats.framesDelivered - a.stats.framesDelivered);
    std::printf("%s: %.1f s, %.0f frames = %.1f frames/s; overran %lld, source starved %lld, pool exhausted %lld, "
                "sink refused %lld\n",
        phase, wall, frames, frames / wall, (long long)(s.renderOverran - r.renderOverran),
        (long long)(s.sourceStarved - r.sourceStarved), (long long)(s.poolExhausted - r.poolExhausted),
        (long long)(s.sinkRefused - r.sinkRefused));
    std::printf("%s: CPU %.0f %% of one core (Plim), Xvfb %.0f %%\n", phase, 100 * (b.cpu - a.cpu) / wall,
        100 * (b.xCpu - a.xCpu) / wall);
    if (lat.empty()) {
        std::printf("%s: no screen change was seen leaving the sink\n", phase);
        return;
    }
    const double frame = 1000.0 / fps;
    auto at = [&](double q) { return lat[std::min(lat.size() - 1, size_t(q * double(lat.size())))] * 1000; };
    std::printf("%s: screen change to frame leaving the sink over %zu changes: median %.1f ms (%.2f frames at %d fps), "
                "95th %.1f ms, worst %.1f ms (%.2f frames)\n",
        phase, lat.size(), at(0.5), at(0.5) / frame, fps, at(0.95), lat.back() * 1000, lat.back() * 1000 / frame);
}

} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 20.0;
    char tmpl[] = "/tmp/plim-live-bench-XXXXXX";
    const fs::path dir = mkdtemp(tmpl);
    const std::string display = ":" + std::to_string(100 + (getpid() * 17) % 800);
    pid_t xvfb = plim::bench::startXvfb(
        display, std::to_string(screenWidth) + "x" + std::to_string(screenHeight) + "x24", dir.string());
    if (xvfb < 0)
        return 1;
    std::atomic<bool> stop{false};
    Flips flips;
    std::thread animator([&] { animate(display, stop, flips); });

    plim::LiveSessionOptions options;
    options.look = plim::PlimLook{};
    options.canvas = {1920, 1080};
    options.switches.bubble = false; // no camera on this machine
    plim::StageRenderer::Options stageOptions;
    stageOptions.content = {screenWidth, screenHeight};
    stageOptions.hasKeycaps = false;
    auto stage = plim::StageRenderer::create(plim::wearing(options.stage, options.look), options.canvas, stageOptions);
    if (!stage) {
        std::fprintf(stderr, "%s\n", stage.error().sentence.c_str());
        return 1;
    }
    const plim::Point sample = (*stage)->placement({screenWidth, screenHeight}, plim::StageMoment{})
                                   .sourceToOutput.apply(plim::Point{screenWidth / 4.0, screenHeight / 2.0});
    auto sink = std::make_shared<TimingSink>(sample);

    plim::LiveServices services;
    services.openDesktop = [&] { return plim::Desktop::create(display); };
    plim::LiveSession session(services);
    if (auto live = session.goLive(options, {sink}); !live) {
        std::fprintf(stderr, "%s\n", live.error().sentence.c_str());
        stop = true;
        animator.join();
        kill(xvfb, SIGTERM);
        return 1;
    }
    std::printf("live_bench: a %dx%d display (half moving bars, half flipping every 250 ms) composed into 1920x1080 "
                "with the default look, %.0f s with the ladder, then 10 s pinned at 30 fps\n",
        screenWidth, screenHeight, seconds);
    auto mark = [&] {
        return Mark{plim::systemUptime(), cpuSeconds(), plim::bench::cpuSeconds(xvfb), session.pipeline()->stats()};
    };

    std::this_thread::sleep_for(1s); // settle
    Mark a = mark();
    int changes = 0;
    std::string walk;
    for (double t = 0; t < seconds; t += 0.5) {
        std::this_thread::sleep_for(500ms);
        plim::LiveHealthReport health = session.refreshHealth();
        if (health.note) {
            ++changes;
            char line[64];
            std::snprintf(line, sizeof line, " %.1fs:%s", t + 0.5,
                health.quality == plim::LiveQuality::full ? "full" : health.quality == plim::LiveQuality::halfRate ? "halfRate" : "minimalEffects");
            walk += line;
        }
    }
    Mark b = mark();
    const int ladderFps = session.pipeline()->currentFPS();
    std::printf("ladder: %d changes%s; ends at %d fps\n", changes, walk.empty() ? "" : (":" + walk).c_str(), ladderFps);

    session.pipeline()->setRate(30);
    std::this_thread::sleep_for(1s);
    Mark c = mark();
    std::this_thread::sleep_for(10s);
    Mark d = mark();
    session.stop();
    stop = true;
    animator.join();
    kill(xvfb, SIGTERM);

    std::vector<std::pair<double, int>> flipTimes;
    {
        std::lock_guard l(flips.lock);
        flipTimes = flips.times;
    }
    const auto seen = sink->seen();
    report("ladder phase", a, b, latencies(flipTimes, seen, a.wall, b.wall), ladderFps);
    report("half rate", c, d, latencies(flipTimes, seen, c.wall, d.wall), 30);
    std::error_code ec;
    fs::remove_all(dir, ec);
    return 0;
}
