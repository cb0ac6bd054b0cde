// The wlr backend on a real wlroots desktop: sway, headless, with a terminal printing the
// time. The session picks the backend itself, records five seconds of the output, and the
// movie has the output's size, a frame a tick, a changing picture and the colours grim sees.

#include "capture/capture_session.h"
#include "capture/desktop.h"
#include "capture/keystroke_recorder.h"
#include "capture/linux_input/input_events.h"
#include "capture/wayland/keymap_wayland.h"
#include "testkit/servers.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace plim {
namespace {

using namespace testkit;

constexpr int width = 1280, height = 720;

TEST(WlrCapture, FiveSecondsOfSwayMatchGrimsPicture)
{
    SwayServer sway(std::to_string(width) + "x" + std::to_string(height),
        "foot -e sh -c 'while true; do date +%T.%N; sleep 0.05; done'");
    if (!sway.isUp())
        GTEST_SKIP() << sway.trouble();
    ScopedEnv runtime("XDG_RUNTIME_DIR", sway.runtimeDir().string());
    ScopedEnv wayland("WAYLAND_DISPLAY", sway.socket());
    ScopedEnv session("XDG_SESSION_TYPE", "wayland");

    auto desktop = Desktop::create();
    ASSERT_TRUE(desktop) << desktop.error().sentence;
    EXPECT_NE((*desktop)->choice().find("wlr-screencopy"), std::string::npos) << (*desktop)->choice();
    auto displays = (*desktop)->displays();
    ASSERT_EQ(displays.size(), 1u);
    EXPECT_EQ(displays[0].name, "HEADLESS-1");
    EXPECT_EQ(displays[0].frame, (Rect{0, 0, width, height}));
    EXPECT_FALSE((*desktop)->screen(ScreenSubject::window(1))) << "a window needs the portal here";
    // The terminal is up once its title bar (sway's blue) shows.
    ASSERT_TRUE(eventually([&] {
        auto still = (*desktop)->picture({600, 0, 80, 20});
        if (!still || still->width != 80)
            return false;
        const uint8_t* p = still->row(10) + 40 * 4;
        return p[0] > p[2] + 40;
    })) << "foot never showed";

    TempDir folder;
    CaptureSettings settings;
    settings.framesPerSecond = 30;
    auto devices = openDevices(settings);
    ASSERT_TRUE(devices) << devices.error().sentence;
    // No input devices here: the user is told, and the screen rolls on without clicks and keys.
    ASSERT_EQ(devices->missing.size(), 1u);
    EXPECT_NE(devices->missing[0].find("without clicks and keys"), std::string::npos) << devices->missing[0];
    CaptureSession::Options options;
    options.movie = folder / "Sway.mov";
    auto started = CaptureSession::start(settings, std::move(*devices), options);
    ASSERT_TRUE(started) << started.error().sentence;
    CaptureSession& rolling = **started;
    auto rollUntil = [&](double seconds) {
        while (rolling.elapsed() < seconds)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    };
    rollUntil(2.5);
    ASSERT_EQ(runCommand({"grim", (folder / "grim.png").string()}, sway.environment()).status, 0);
    rollUntil(5.0);
    auto finished = (*started)->finish();
    ASSERT_TRUE(finished.isFinished()) << finished.sentence;
    EXPECT_FALSE(finished.value.failure.has_value()) << *finished.value.failure;

    const fs::path movie = folder / "Sway.mov";
    EXPECT_EQ(probe(movie, "v:0", "stream=width,height"), "1280,720");
    // A frame a tick, the still ones included: those written and those a loaded machine let
    // slip, which are counted (the clock changes the picture only some 14 times a second).
    const int frames = std::atoi(probe(movie, "v:0", "stream=nb_read_frames", {"-count_frames"}).c_str());
    EXPECT_EQ(frames, finished.value.frames);
    EXPECT_NEAR(finished.value.seconds, 5.0, 0.1);
    EXPECT_NEAR(double(frames + finished.value.droppedFrames), 30 * finished.value.seconds, 15);
    EXPECT_GE(frames, 75);

    // The clock runs: the text at the start and the end differ. Sway's title bar and the
    // empty right of the terminal have grim's colours (not pixel for pixel: the movie is encoded).
    const std::string first = pictureArea(movie, 0.0, 0, 0, width, height),
                      last = pictureArea(movie, 4.5, 0, 0, width, height);
    ASSERT_EQ(first.size(), size_t(width) * height * 3);
    EXPECT_NE(first, last);
    for (auto [x, y, w, h] : {std::array{400, 2, 800, 20}, std::array{800, 100, 400, 600}}) {
        auto recorded = meanColour(movie, 4.5, x, y, w, h), shot = meanColour(folder / "grim.png", 0, x, y, w, h);
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(recorded[c], shot[c], 6) << "colour " << c << " of " << x << "," << y;
    }
}

// Keys from the kernel's devices are named by the keymap sway hands its clients, here the
// one a virtual keyboard (wtype) brought, which puts its first letter on the first key.
TEST(WlrCapture, KeysAreNamedByTheCompositorsKeymap)
{
    if (runCommand({"sh", "-c", "command -v wtype"}).status != 0)
        GTEST_SKIP() << "wtype is not installed (scripts/setup.sh installs it)";
    SwayServer sway("640x480", "foot");
    if (!sway.isUp())
        GTEST_SKIP() << sway.trouble();
    ScopedEnv runtime("XDG_RUNTIME_DIR", sway.runtimeDir().string());
    ScopedEnv wayland("WAYLAND_DISPLAY", sway.socket());
    EXPECT_EQ(compositorKeymap(), "") << "no keyboard yet, so no keymap";
    // wtype's keyboard stays on the seat while it types slowly.
    ChildProcess typing({"wtype", "-s", "400", "qqqqqqqqqqqqqqqqqqqqqqqqq"}, sway.environment(), "/dev/null", "/dev/null");
    std::string keymap;
    ASSERT_TRUE(eventually([&] { return !(keymap = compositorKeymap()).empty(); }, 10)) << "sway sent no keymap";
    auto tracker = InputTracker::create({{0, 0, 640, 480}}, keymap);
    ASSERT_TRUE(tracker) << tracker.error().sentence;
    std::vector<uint32_t> keysyms;
    (*tracker)->keyHandlers().install([&](const KeyPress& press) { keysyms.push_back(press.keysym); });
    (*tracker)->handle({InputEvent::Kind::key, 1, 1000, 1, true}); // Escape on a US keyboard
    EXPECT_EQ(keysyms, std::vector<uint32_t>{'q'}) << keymap.substr(0, 2000);
}

} // namespace
} // namespace plim
