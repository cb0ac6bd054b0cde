// Sync on a real X server and sound server: a window turns red when clicked, and on a
// timer turns another colour at the instant a tone starts sounding in the sink. The
// recorded movie, its cursor track and its system-sound track must agree: the click
// within about a frame of the first frame that shows it, the tone within 20 ms of the
// picture (plus the frame's own 16.7 ms grain).

#include "base/clock.h"
#include "base/files.h"
#include "capture/capture_session.h"
#include "media/media.h"
#include "testkit/servers.h"
#include "testkit/test_window.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <pulse/pulseaudio.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>

namespace plim {
namespace {

using namespace testkit;
using namespace std::chrono_literals;

// A playback stream kept running with silence; beep() writes a tone and says, on the
// uptime clock, when its first sample will be heard.
class TonePlayer {
public:
    TonePlayer()
    {
        m_loop = pa_threaded_mainloop_new();
        m_context = pa_context_new(pa_threaded_mainloop_get_api(m_loop), "sync test");
        pa_context_set_state_callback(m_context, [](pa_context*, void* l) {
            pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(l), 0);
        }, m_loop);
        pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr);
        pa_threaded_mainloop_lock(m_loop);
        pa_threaded_mainloop_start(m_loop);
        while (pa_context_get_state(m_context) != PA_CONTEXT_READY && PA_CONTEXT_IS_GOOD(pa_context_get_state(m_context)))
            pa_threaded_mainloop_wait(m_loop);
        pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, 48000, 1};
        m_stream = pa_stream_new(m_context, "tone", &spec, nullptr);
        pa_stream_set_state_callback(m_stream, [](pa_stream*, void* l) {
            pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(l), 0);
        }, m_loop);
        pa_buffer_attr attr{};
        attr.maxlength = uint32_t(-1);
        attr.tlength = uint32_t(pa_usec_to_bytes(30000, &spec));
        attr.prebuf = uint32_t(-1);
        attr.minreq = uint32_t(-1);
        pa_stream_connect_playback(m_stream, "plimsink", &attr,
            pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_AUTO_TIMING_UPDATE),
            nullptr, nullptr);
        while (pa_stream_get_state(m_stream) != PA_STREAM_READY && PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream)))
            pa_threaded_mainloop_wait(m_loop);
        m_ready = pa_stream_get_state(m_stream) == PA_STREAM_READY;
        pa_stream_set_write_callback(m_stream, [](pa_stream* s, size_t bytes, void*) {
            std::vector<float> silence(bytes / 4, 0.0f);
            pa_stream_write(s, silence.data(), silence.size() * 4, nullptr, 0, PA_SEEK_RELATIVE);
        }, nullptr);
        pa_threaded_mainloop_unlock(m_loop);
    }
    ~TonePlayer()
    {
        pa_threaded_mainloop_lock(m_loop);
        if (m_stream) {
            pa_stream_disconnect(m_stream);
            pa_stream_unref(m_stream);
        }
        pa_threaded_mainloop_unlock(m_loop);
        pa_threaded_mainloop_stop(m_loop);
        pa_context_disconnect(m_context);
        pa_context_unref(m_context);
        pa_threaded_mainloop_free(m_loop);
    }
    bool isReady() const { return m_ready; }

    double beep(double seconds)
    {
        std::vector<float> tone(size_t(seconds * 48000));
        for (size_t i = 0; i < tone.size(); ++i)
            tone[i] = 0.5f * float(std::sin(2 * M_PI * 1000.0 * double(i) / 48000));
        pa_threaded_mainloop_lock(m_loop);
        // When the sink will take the first byte written now: what is queued ahead of it
        // plus the sink's own latency, from fresh timing information.
        pa_operation* op = pa_stream_update_timing_info(m_stream, [](pa_stream*, int, void* l) {
            pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(l), 0);
        }, m_loop);
        while (op && pa_operation_get_state(op) == PA_OPERATION_RUNNING)
            pa_threaded_mainloop_wait(m_loop);
        if (op)
            pa_operation_unref(op);
        double heard = systemUptime();
        if (const pa_timing_info* t = pa_stream_get_timing_info(m_stream))
            heard += double(t->write_index - t->read_index) / (48000.0 * 4) + double(t->sink_usec) / 1e6;
        pa_stream_write(m_stream, tone.data(), tone.size() * 4, nullptr, 0, PA_SEEK_RELATIVE);
        pa_threaded_mainloop_unlock(m_loop);
        return heard;
    }

private:
    pa_threaded_mainloop* m_loop = nullptr;
    pa_context* m_context = nullptr;
    pa_stream* m_stream = nullptr;
    bool m_ready = false;
};

void sleepUntil(double uptime)
{
    double wait = uptime - systemUptime();
    if (wait > 0)
        std::this_thread::sleep_for(std::chrono::duration<double>(wait));
}

TEST(SyncTest, ClicksAndSoundLandWithThePicture)
{
    XvfbServer x("640x480x24");
    PulseServer pulse;
    if (!x.isUp() || !pulse.isUp())
        GTEST_SKIP() << "Xvfb or pulseaudio could not start here";
    std::vector<std::unique_ptr<ScopedEnv>> env;
    env.push_back(std::make_unique<ScopedEnv>("DISPLAY", x.display()));
    for (const auto& assignment : pulse.environment()) {
        auto eq = assignment.find('=');
        env.push_back(std::make_unique<ScopedEnv>(assignment.substr(0, eq), assignment.substr(eq + 1)));
    }
    TempDir folder;
    TestWindow window(x.display(), 0, 0, 640, 480, 0x808080);
    ASSERT_TRUE(window.isOpen());
    TonePlayer player;
    ASSERT_TRUE(player.isReady());

    CaptureSettings settings;
    settings.systemSound = true;
    settings.keycaps = false;
    auto devices = openDevices(settings);
    ASSERT_TRUE(devices.has_value()) << devices.error().sentence;
    ASSERT_TRUE(devices->systemSound);
    CaptureSession::Options options;
    options.movie = folder / "Sync.mov";
    auto session = CaptureSession::start(settings, std::move(*devices), options);
    ASSERT_TRUE(session.has_value()) << session.error().sentence;

    std::this_thread::sleep_for(800ms);
    ASSERT_EQ(runCommand({"xdotool", "mousemove", "320", "240", "click", "1"}).status, 0);
    const uint32_t colours[] = {0x0000ff, 0x00ff00, 0xffffff};
    for (uint32_t colour : colours) {
        std::this_thread::sleep_for(700ms);
        double heard = player.beep(0.2);
        sleepUntil(heard);
        window.fill(colour);
    }
    std::this_thread::sleep_for(700ms);
    auto outcome = (*session)->finish();
    ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;

    // First frame of each colour, in movie seconds.
    auto reader = MovieReader::create(options.movie);
    ASSERT_TRUE(reader.has_value()) << reader.error().sentence;
    auto classify = [](const uint8_t* p) -> int { // 0 grey, 1 red, 2 blue, 3 green, 4 white
        int b = p[0], g = p[1], r = p[2];
        if (r > 200 && g > 200 && b > 200)
            return 4;
        if (r > 180 && g < 80 && b < 80)
            return 1;
        if (b > 180 && r < 80 && g < 80)
            return 2;
        if (g > 180 && r < 80 && b < 80)
            return 3;
        return 0;
    };
    double firstOf[5] = {-1, -1, -1, -1, -1};
    double beforeFirst[5] = {-1, -1, -1, -1, -1}; // the frame before each colour's first
    double previous = -1;
    while (true) {
        auto frame = (*reader)->next();
        ASSERT_TRUE(frame.has_value()) << frame.error().sentence;
        if (!*frame)
            break;
        const Image& image = (*frame)->image;
        int kind = classify(image.row(image.height / 2) + (image.width / 2) * 4);
        if (firstOf[kind] < 0) {
            firstOf[kind] = (*frame)->time;
            beforeFirst[kind] = previous;
        }
        previous = (*frame)->time;
    }
    for (int k = 1; k < 5; ++k)
        ASSERT_GE(firstOf[k], 0) << "colour " << k << " never showed";

    // The click against the first red frame, on the track's clock.
    auto track = CursorTrack::read(options.movie);
    ASSERT_TRUE(track.has_value());
    ASSERT_EQ(track->value.clicks.size(), 1u);
    double clickOffsetMS = firstOf[1] * 1000 + double(track->value.videoStartOffsetMS) - double(track->value.clicks[0].t);
    // The click carries the X server's own stamp, so however late our event thread runs it
    // cannot land after the frame showing it by more than the grab's round trip. What lies
    // between is the window's own drawing, which it reports, and the wait for the next frame.
    auto shown = window.lastClick();
    ASSERT_TRUE(shown.has_value());
    double drawingMS = double(uint32_t(uint64_t(shown->shownMS)) - shown->pressedMS);
    double effectToFrameMS = clickOffsetMS - drawingMS;
    std::printf("click: first frame showing it is %.1f ms after the click in the cursor track; the window took "
                "%.1f ms to draw it, so the frame came %.1f ms after the picture changed\n",
        clickOffsetMS, drawingMS, effectToFrameMS);
    EXPECT_GE(clickOffsetMS, -16.7);
    EXPECT_LE(clickOffsetMS, drawingMS + 100.0);
    // Within one frame of the change, unless a frame was lost right there (the capture bench
    // counts those): then only the loose bound above holds.
    double gapMS = (firstOf[1] - beforeFirst[1]) * 1000;
    if (beforeFirst[1] >= 0 && gapMS < 1.5 * 1000.0 / 60)
        EXPECT_LE(effectToFrameMS, 1000.0 / 60 + 1.0) << "frames " << gapMS << " ms apart";
    else
        std::printf("a frame was lost as the click showed (%.1f ms between frames); one-frame check skipped\n", gapMS);

    // Each tone's onset in the system-sound track against its colour's first frame.
    auto decoded = runCommand({"ffmpeg", "-v", "error", "-i", options.movie.string(), "-map", "0:a:0", "-ac", "1",
        "-f", "f32le", "-"});
    std::vector<float> samples(decoded.out.size() / 4);
    std::memcpy(samples.data(), decoded.out.data(), samples.size() * 4);
    std::vector<double> onsets;
    size_t quietSince = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        if (std::fabs(samples[i]) > 0.05f) {
            if (i - quietSince > 4800)
                onsets.push_back(double(i) / 48000);
            quietSince = i;
        }
    }
    ASSERT_EQ(onsets.size(), 3u);
    std::vector<double> offsets;
    for (int n = 0; n < 3; ++n) {
        double offsetMS = (onsets[size_t(n)] - firstOf[n + 2]) * 1000;
        std::printf("tone %d: sound starts %.1f ms from the first frame showing its colour\n", n + 1, offsetMS);
        offsets.push_back(offsetMS);
        // A single tone also carries this test's own scheduling on a busy machine.
        EXPECT_GT(offsetMS, -60.0);
        EXPECT_LT(offsetMS, 50.0);
    }
    // The frame is taken up to one frame after the change, so the sound may lead by that much.
    std::sort(offsets.begin(), offsets.end());
    EXPECT_LE(offsets[1], 20.0);
    EXPECT_GE(offsets[1], -(20.0 + 16.7));
}

} // namespace
} // namespace plim
