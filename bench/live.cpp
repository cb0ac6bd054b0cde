// Live composition of a changing 2560 x 1600 Xvfb display into 1920 x 1080 frames with the
// full default look (backdrop, shadowed rounded card, gliding pointer), as `plimctl live`
// runs it. The right half of the display shows colour bars moving every 1/60 s and the
// pointer circling; the left half flips between two colours every 250 ms. A sink reads
// each frame as it leaves the pipeline and times how long each flip took to show.
//
// The frames also go to Plim Camera on a private PipeWire (and WirePlumber), where a small
// libpipewire reader takes them in BGRx at the canvas size and times the same flips.
//
// Phase 1 (seconds given, default 20): the ladder walks as in a real run; its changes are
// printed. Phase 2 (10 s): pinned at the half-rate rung. Each prints frames delivered a
// second, the backpressure counters, this process's CPU and the X server's, and the
// latency from a screen change to the frame leaving the sink and to the frame received
// by the PipeWire reader.

#include "base/clock.h"
#include "live/camera_sinks.h"
#include "live/live.h"
#include "processes.h"
#include "testkit/pipewire_server.h"

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
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
#include <cstring>
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

// Which flip colour a BGRx pixel shows, or -1.
int flipColourOf(const uint8_t* p)
{
    int colour = -1;
    for (int i = 0; i < 2; ++i) {
        const uint32_t c = flipColours[i];
        if (std::abs(p[2] - int(c >> 16 & 0xff)) + std::abs(p[1] - int(c >> 8 & 0xff)) + std::abs(p[0] - int(c & 0xff)) < 40)
            colour = i;
    }
    return colour;
}

// Notes, for every frame, when it left and which flip colour the sample point shows.
class TimingSink final : public plim::LiveSink {
public:
    explicit TimingSink(plim::Point sample) : m_x(int(sample.x)), m_y(int(sample.y)) {}
    std::string name() const override { return "Bench"; }
    void consume(const plim::LiveFrame& frame) override
    {
        const int colour = flipColourOf(frame.image.row(m_y) + m_x * 4);
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

// A PipeWire video reader of the node named "Plim Camera", in BGRx at the canvas size:
// for every buffer it notes when it arrived and which flip colour the sample point shows.
class PipeWireReader {
public:
    PipeWireReader(plim::Size canvas, plim::Point sample) : m_canvas(canvas), m_sample(sample)
    {
        pw_init(nullptr, nullptr);
        m_loop = pw_thread_loop_new("bench-reader", nullptr);
        pw_thread_loop_start(m_loop);
        pw_thread_loop_lock(m_loop);
        m_context = pw_context_new(pw_thread_loop_get_loop(m_loop), nullptr, 0);
        m_core = pw_context_connect(m_context, nullptr, 0);
        if (m_core) {
            static const pw_stream_events events = [] {
                pw_stream_events e{};
                e.version = PW_VERSION_STREAM_EVENTS;
                e.param_changed = [](void* self, uint32_t id, const spa_pod* param) {
                    auto* reader = static_cast<PipeWireReader*>(self);
                    spa_video_info_raw info{};
                    if (id == SPA_PARAM_Format && param && spa_format_video_raw_parse(param, &info) >= 0)
                        reader->m_size = {double(info.size.width), double(info.size.height)};
                };
                e.process = [](void* self) { static_cast<PipeWireReader*>(self)->process(); };
                return e;
            }();
            m_stream = pw_stream_new(m_core, "bench reader",
                pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE,
                    "Camera", PW_KEY_TARGET_OBJECT, "Plim Camera", nullptr));
            pw_stream_add_listener(m_stream, &m_listener, &events, this);
            uint8_t space[512];
            spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof(space));
            const spa_rectangle size{uint32_t(canvas.width), uint32_t(canvas.height)};
            const spa_fraction rate{0, 1};
            const spa_pod* format = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
                SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat,
                SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
                SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
                SPA_FORMAT_VIDEO_format, SPA_POD_Id(SPA_VIDEO_FORMAT_BGRx),
                SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size),
                SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&rate)));
            pw_stream_connect(m_stream, PW_DIRECTION_INPUT, PW_ID_ANY,
                static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS), &format, 1);
        }
        pw_thread_loop_unlock(m_loop);
    }

    ~PipeWireReader()
    {
        pw_thread_loop_lock(m_loop);
        if (m_stream) {
            spa_hook_remove(&m_listener);
            pw_stream_destroy(m_stream);
        }
        if (m_core)
            pw_core_disconnect(m_core);
        pw_thread_loop_unlock(m_loop);
        pw_thread_loop_stop(m_loop);
        pw_context_destroy(m_context);
        pw_thread_loop_destroy(m_loop);
    }

    bool connected() const { return m_core != nullptr; }

    std::vector<std::pair<double, int>> seen()
    {
        std::lock_guard l(m_lock);
        return m_seen;
    }

private:
    // On the loop's thread.
    void process()
    {
        pw_buffer* buffer = pw_stream_dequeue_buffer(m_stream);
        if (!buffer)
            return;
        const spa_data& data = buffer->buffer->datas[0];
        const double now = plim::systemUptime();
        const int x = int(m_sample.x * m_size.width / m_canvas.width), y = int(m_sample.y * m_size.height / m_canvas.height);
        const int stride = data.chunk->stride > 0 ? data.chunk->stride : int(m_size.width) * 4;
        int colour = -1;
        if (data.data && m_size.width > 0 && uint64_t(y) * uint64_t(stride) + uint64_t(x) * 4 + 4 <= data.chunk->size)
            colour = flipColourOf(static_cast<const uint8_t*>(data.data) + data.chunk->offset + y * stride + x * 4);
        pw_stream_queue_buffer(m_stream, buffer);
        std::lock_guard l(m_lock);
        m_seen.emplace_back(now, colour);
    }

    plim::Size m_canvas;
    plim::Point m_sample;
    plim::Size m_size; // as agreed with the camera
    pw_thread_loop* m_loop = nullptr;
    pw_context* m_context = nullptr;
    pw_core* m_core = nullptr;
    pw_stream* m_stream = nullptr;
    spa_hook m_listener{};
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

void latencyLine(const char* phase, const char* where, const std::vector<double>& lat, int fps)
{
    if (lat.empty()) {
        std::printf("%s: no screen change was seen %s\n", phase, where);
        return;
    }
    const double frame = 1000.0 / fps;
    auto at = [&](double q) { return lat[std::min(lat.size() - 1, size_t(q * double(lat.size())))] * 1000; };
    std::printf("%s: screen change to %s over %zu changes: median %.1f ms (%.2f frames at %d fps), 95th %.1f ms, worst "
                "%.1f ms (%.2f frames)\n",
        phase, where, lat.size(), at(0.5), at(0.5) / frame, fps, at(0.95), lat.back() * 1000, lat.back() * 1000 / frame);
}

void report(const char* phase, const Mark& a, const Mark& b, const std::vector<double>& left,
    const std::vector<double>& received, int fps)
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
    std::printf("%s: CPU %.0f %% of one core (Plim, the PipeWire reader included), Xvfb %.0f %%\n", phase,
        100 * (b.cpu - a.cpu) / wall, 100 * (b.xCpu - a.xCpu) / wall);
    latencyLine(phase, "frame leaving the sink", left, fps);
    latencyLine(phase, "frame received by the PipeWire reader", received, fps);
}

} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 20.0;
    // Plim Camera's own PipeWire, on a runtime folder of its own.
    plim::testkit::PipeWireServer pipewire;
    if (!pipewire.isUp()) {
        std::fprintf(stderr, "live_bench: no PipeWire could be started: %s\n", pipewire.trouble().c_str());
        return 1;
    }
    for (const std::string& pair : pipewire.environment())
        if (!pair.starts_with("DBUS_SESSION_BUS_ADDRESS="))
            putenv(strdup(pair.c_str()));
    unsetenv("PIPEWIRE_REMOTE");
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
    std::shared_ptr<plim::LiveSink> camera = plim::makePipeWireCameraSink();
    PipeWireReader reader(options.canvas, sample);
    if (!reader.connected()) {
        std::fprintf(stderr, "live_bench: the PipeWire reader could not connect\n");
        return 1;
    }

    plim::LiveServices services;
    services.openDesktop = [&] { return plim::Desktop::create(display); };
    plim::LiveSession session(services);
    if (auto live = session.goLive(options, {sink, camera}); !live) {
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

    std::this_thread::sleep_for(2s); // settle; the reader links to the camera
    const plim::LiveHealthReport settled = session.refreshHealth();
    std::printf("sinks: %s\n", settled.line.c_str());
    Mark a = mark();
    int changes = settled.note ? 1 : 0;
    std::string walk = settled.note ? " while settling" : "";
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
    const auto received = reader.seen();
    report("ladder phase", a, b, latencies(flipTimes, seen, a.wall, b.wall), latencies(flipTimes, received, a.wall, b.wall),
        ladderFps);
    report("half rate", c, d, latencies(flipTimes, seen, c.wall, d.wall), latencies(flipTimes, received, c.wall, d.wall), 30);
    std::error_code ec;
    fs::remove_all(dir, ec);
    return 0;
}
