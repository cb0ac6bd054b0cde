// The X11 desktop and the capture session on a real X server: the desktop lists what it
// shows, subjects that cannot be recorded are refused with their sentences, an area records
// at its even size, and a window is followed as it moves and resizes until it closes.

#include "base/files.h"
#include "capture/capture_session.h"
#include "capture/desktop.h"
#include "capture/pointer_source.h"
#include "capture/track_placement.h"
#include "capture/x11/x11_connection.h"
#include "testing/scripted_camera.h"
#include "testkit/servers.h"
#include "testkit/test_window.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <chrono>
#include <cstring>
#include <thread>

namespace plim {
namespace {

using namespace testkit;
using namespace std::chrono_literals;

class ScreenCaptureTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!x.isUp())
            GTEST_SKIP() << "Xvfb could not start here";
    }
    // Starts recording on the test's display into folder/name, with `camera` when set, noting
    // the headline if it ends by itself.
    std::unique_ptr<CaptureSession> start(
        CaptureSettings settings, const std::string& name, std::unique_ptr<CameraSource> camera = nullptr)
    {
        settings.display = x.display();
        auto devices = openDevices(settings);
        if (!devices) {
            ADD_FAILURE() << devices.error().sentence;
            return nullptr;
        }
        devices->camera = std::move(camera); // none was asked for
        CaptureSession::Options options;
        options.movie = folder / name;
        options.onEnded = [this](const std::string& h) {
            headline = h;
            ended = true;
        };
        auto session = CaptureSession::start(settings, std::move(*devices), options);
        if (!session) {
            ADD_FAILURE() << session.error().sentence;
            return nullptr;
        }
        return std::move(*session);
    }

    XvfbServer x{"800x600x24"};
    TempDir folder;
    std::atomic<bool> ended{false};
    std::string headline; // set before `ended`
};

TEST_F(ScreenCaptureTest, TheDesktopListsWhatItShowsAndRefusesWhatCannotBeRecorded)
{
    TestWindow window(x.display(), 10, 10, 50, 40, 0x00ff00);
    auto absent = Desktop::create(":999");
    ASSERT_FALSE(absent.has_value());
    EXPECT_EQ(absent.error().sentence, "No display is available to record.");

    auto created = Desktop::create(x.display());
    ASSERT_TRUE(created.has_value()) << created.error().sentence;
    Desktop& desktop = **created;
    EXPECT_EQ(desktop.bounds(), (Rect{0, 0, 800, 600}));
    auto displays = desktop.displays();
    ASSERT_EQ(displays.size(), 1u);
    EXPECT_EQ(displays[0].frame, (Rect{0, 0, 800, 600}));
    auto windows = desktop.windows();
    auto shown = std::find_if(windows.begin(), windows.end(), [&](const DesktopWindow& w) { return w.id == window.id(); });
    ASSERT_NE(shown, windows.end());
    EXPECT_EQ(shown->frame, (Rect{10, 10, 50, 40}));

    // A still of an area straddling the window's corner, and one off every display.
    auto still = desktop.picture(Rect{0, 0, 20, 20});
    ASSERT_TRUE(still.has_value()) << still.error().sentence;
    ASSERT_EQ(still->width, 20);
    const uint8_t* inside = still->row(15) + 15 * 4;
    const uint8_t* outside = still->row(5) + 5 * 4;
    EXPECT_EQ((std::array<int, 4>{inside[0], inside[1], inside[2], inside[3]}), (std::array<int, 4>{0, 255, 0, 255}));
    EXPECT_NE(outside[1], 255);
    EXPECT_FALSE(desktop.picture(Rect{900, 700, 10, 10}).has_value());

    // Its icon: the smallest size at least as wide as asked, else the largest, premultiplied.
    EXPECT_FALSE(desktop.windowIcon(window.id(), 32));
    std::vector<uint32_t> icon = {16, 16};
    icon.insert(icon.end(), 16 * 16, 0xffff0000);  // opaque red
    icon.insert(icon.end(), {32, 32});
    icon.insert(icon.end(), 32 * 32, 0x800000ff);  // half-covering blue
    {
        xcb_connection_t* c = xcb_connect(x.display().c_str(), nullptr);
        const char* name = "_NET_WM_ICON";
        auto* reply = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(std::strlen(name)), name), nullptr);
        ASSERT_NE(reply, nullptr);
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, window.id(), reply->atom, XCB_ATOM_CARDINAL, 32,
            uint32_t(icon.size()), icon.data());
        free(reply);
        free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr)); // the change has landed
        xcb_disconnect(c);
    }
    auto large = desktop.windowIcon(window.id(), 24), small = desktop.windowIcon(window.id(), 8);
    auto largest = desktop.windowIcon(window.id(), 64);
    ASSERT_TRUE(large && small && largest);
    EXPECT_EQ(large->width, 32);
    EXPECT_EQ(small->width, 16);
    EXPECT_EQ(largest->width, 32);
    const uint8_t* blue = large->row(5) + 5 * 4;
    EXPECT_EQ((std::array<int, 4>{blue[0], blue[1], blue[2], blue[3]}), (std::array<int, 4>{128, 0, 0, 128}));
    const uint8_t* red = small->row(0);
    EXPECT_EQ((std::array<int, 4>{red[0], red[1], red[2], red[3]}), (std::array<int, 4>{0, 0, 255, 255}));
    // An entry claiming more pixels than the property holds ends the list.
    icon[0] = 1000;
    EXPECT_FALSE(iconFromWords(icon, 16));
    icon.resize(2 + 16 * 16 + 2 + 100);
    icon[0] = 16;
    EXPECT_EQ(iconFromWords(icon, 64)->width, 16);

    auto inputs = desktop.inputs();
    ASSERT_TRUE(inputs.has_value()) << inputs.error().sentence;
    EXPECT_TRUE(inputs->pointer->position().has_value());

    const std::vector<std::tuple<const char*, ScreenSubject, std::string>> cases = {
        {"an area 1.5 points wide", ScreenSubject::areaOf({0, 0, 1.5, 100}),
            "That subject reports a size of 1.5 x 100 points, which is too small to record."},
        {"an area off the screen", ScreenSubject::areaOf({900, 700, 100, 100}),
            "The area 900,700 100x100 lies off the screen, which is 800 x 600 pixels, so nothing was recorded. "
            "Pick an area on the screen."},
        {"a device", ScreenSubject{ScreenSubject::Kind::device, {}, 0, {}, "iPad"},
            "A device subject reached the screen path."},
        {"a window that does not exist", ScreenSubject::window(0x7fffff), "That window is gone."},
        {"an unknown display", ScreenSubject::display("HDMI-9"),
            "There is no display called \"HDMI-9\" to record. Nothing was recorded. Pick one of: screen."},
    };
    for (const auto& [name, subject, sentence] : cases) {
        auto source = desktop.screen(subject);
        ASSERT_FALSE(source.has_value()) << name;
        EXPECT_EQ(source.error().sentence, sentence) << name;
    }
    auto two = desktop.screen(ScreenSubject::areaOf({5, 5, 2, 2}));
    ASSERT_TRUE(two.has_value()) << two.error().sentence;
    EXPECT_EQ((*two)->frame(), (Rect{5, 5, 2, 2}));
}

TEST_F(ScreenCaptureTest, AnAreaIsRecordedAtItsEvenSizeWithTheCameraBeside)
{
    TestWindow window(x.display(), 0, 0, 800, 600, 0x3366cc);
    // The camera's frames come in pairs a tenth of a millisecond apart: the second of each
    // pair is left out rather than ending the camera movie.
    auto session = start({.subject = ScreenSubject::areaOf({100, 50, 301, 201}), .keycaps = false}, "Area.mov",
        std::make_unique<ScriptedCameraSource>(160, 120, 30, true));
    ASSERT_TRUE(session);
    const fs::path movie = folder / "Area.mov";
    std::this_thread::sleep_for(1500ms);
    auto outcome = session->finish();
    ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;
    EXPECT_EQ(outcome.value.width, 300);
    EXPECT_EQ(outcome.value.height, 200);
    EXPECT_GT(outcome.value.frames, 30);
    EXPECT_EQ(probe(movie, "", "stream=width,height"), "300,200");
    auto track = CursorTrack::read(movie);
    ASSERT_TRUE(track.has_value());
    EXPECT_EQ(track->value.displayX, 100);
    EXPECT_EQ(track->value.displayWidth, 301);
    EXPECT_GE(track->value.videoStartOffsetMS, 0);

    // The camera movie beside it, placed by its start instant.
    EXPECT_TRUE(outcome.value.hasCamera);
    EXPECT_EQ(probe(sidecarPath(movie, "camera.mov"), "", "stream=width,height"), "160,120");
    EXPECT_GT(
        std::atoi(probe(sidecarPath(movie, "camera.mov"), "v:0", "stream=nb_read_packets", {"-count_packets"}).c_str()),
        30);
    ASSERT_TRUE(track->value.cameraOffsetMS.has_value());
    EXPECT_GT(*track->value.cameraOffsetMS, -200);
    EXPECT_LT(*track->value.cameraOffsetMS, 500);
}

TEST_F(ScreenCaptureTest, AWindowIsFollowedAsItMovesAndResizesUntilItIsGone)
{
    TestWindow backdrop(x.display(), 0, 0, 800, 600, 0x000000);
    TestWindow window(x.display(), 50, 60, 200, 100, 0xff0000);
    auto session = start({.subject = ScreenSubject::window(window.id())}, "Window.mov");
    ASSERT_TRUE(session);
    const std::vector<std::string> env{"DISPLAY=" + x.display()};
    const std::string id = std::to_string(window.id());
    std::this_thread::sleep_for(700ms);
    ASSERT_EQ(runCommand({"xdotool", "windowmove", id, "300", "200"}, env).status, 0);
    // The window grows, then shrinks, with the pointer inside it each time (at 150,80 and
    // then 50,30 from its corner); each holds for more than a frame key's half second.
    ASSERT_EQ(runCommand({"xdotool", "windowsize", id, "400", "200", "mousemove", "450", "280"}, env).status, 0);
    std::this_thread::sleep_for(900ms);
    double grownAt = session->elapsed();
    ASSERT_EQ(runCommand({"xdotool", "windowsize", id, "100", "50", "mousemove", "350", "230"}, env).status, 0);
    std::this_thread::sleep_for(900ms);
    double shrunkAt = session->elapsed();
    window.close();
    ASSERT_TRUE(eventually([&] { return ended.load(); }, 2));
    EXPECT_EQ(headline, "That window is gone.");
    auto outcome = session->finish();
    ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;
    EXPECT_EQ(outcome.value.failure, "That window is gone.");
    EXPECT_EQ(outcome.value.width, 200);
    EXPECT_EQ(outcome.value.height, 100);

    // The movie keeps the window's first size from its corner, and its frame keys say so:
    // they follow the corner at that size, so the pointer lands where the picture shows it.
    auto track = CursorTrack::read(folder / "Window.mov");
    ASSERT_TRUE(track.has_value());
    EXPECT_EQ(track->value.displayX, 50);
    ASSERT_FALSE(track->value.frames.empty());
    EXPECT_EQ(track->value.frames.front().x, 300);
    EXPECT_EQ(track->value.frames.front().y, 200);
    for (const auto& key : track->value.frames)
        EXPECT_EQ(Size(key.w, key.h), Size(200, 100));
    const TrackPlacement place(track->value);
    auto pointerAt = [&](double movieSeconds) {
        int64_t t = int64_t(movieSeconds * 1000) + track->value.videoStartOffsetMS;
        const CursorSample* at = nullptr;
        for (const auto& sample : track->value.samples)
            if (sample.t <= t)
                at = &sample;
        return at ? place.unitPoint(at->x, at->y, at->t) : Point{-1, -1};
    };
    EXPECT_EQ(pointerAt(grownAt), Point(0.75, 0.8));
    EXPECT_EQ(pointerAt(shrunkAt), Point(0.25, 0.3));
    // Still the window's red where it is, black where the shrunk window left the picture.
    const double seconds = std::atof(probe(folder / "Window.mov", "", "format=duration").c_str());
    EXPECT_LE(colourGap(folder / "Window.mov", seconds - 0.3, 40, 20, 2, 2, {255, 0, 0}), 55);
    EXPECT_LE(colourGap(folder / "Window.mov", seconds - 0.3, 150, 70, 2, 2, {0, 0, 0}), 40);
}

TEST_F(ScreenCaptureTest, AServerThatGoesAwayEndsTheRecordingEarlyAndKeepsWhatWasRecorded)
{
    TestWindow window(x.display(), 0, 0, 800, 600, 0x3366cc);
    auto session = start({.subject = ScreenSubject::display()}, "Gone.mov");
    ASSERT_TRUE(session);
    std::this_thread::sleep_for(1500ms);
    x.stop();
    ASSERT_TRUE(eventually([&] { return ended.load(); }, 4));
    EXPECT_TRUE(headline.starts_with("Recording ended early at ")) << headline;
    auto outcome = session->finish();
    ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;
    EXPECT_EQ(outcome.value.failure, headline);
    EXPECT_GT(outcome.value.frames, 20);
    EXPECT_GT(std::atoi(probe(folder / "Gone.mov", "v:0", "stream=nb_read_frames", {"-count_frames"}).c_str()), 20);
    EXPECT_TRUE(CursorTrack::read(folder / "Gone.mov").has_value());
}

} // namespace
TEST(ScreenSourceTicks, ALateFrameIsTakenAtOnceAndOnlyWholeLostPeriodsCount)
{
    const double period = 1.0 / 60;
    // {how far past the next tick the previous frame ended, in periods; the ticks lost}
    for (auto [behind, lost] : std::vector<std::pair<double, int64_t>>{
             {-0.5, 0}, {0, 0}, {0.3, 0}, {0.999, 0}, {1.001, 1}, {1.7, 1}, {2.001, 2}, {30.2, 30}}) {
        const double next = 1000.0;
        EXPECT_EQ(ticksLost(next + behind * period, next, period), lost) << behind << " periods behind";
    }
    // A clock that went wrong loses nothing rather than everything.
    EXPECT_EQ(ticksLost(std::nan(""), 1000.0, period), 0);
}

TEST(Desktop, WallpaperFromThePlasmaConfiguration)
{
    testkit::XdgSandbox sandbox;
    const auto picture = sandbox.home() / "my wall.png";
    testkit::writeText(picture, "x");
    std::filesystem::create_directories(sandbox.home() / ".config");
    testkit::writeText(sandbox.home() / ".config" / "plasma-org.kde.plasma.desktop-appletsrc",
        "[Containments][1][Wallpaper][org.kde.image][General]\nImage=file://" + (sandbox.home() / "my%20wall.png").string() + "\n");
    // The sandbox's XDG_CONFIG_HOME is that .config. Without gsettings on the path GNOME has nothing to say, so
    // Plasma's answer counts.
    testkit::ScopedEnv path("PATH", "/nonexistent");
    EXPECT_EQ(desktopWallpaper(), picture);
}

} // namespace plim
