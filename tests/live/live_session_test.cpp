// Going live: refused while a recording rolls or is being finished, a screen that cannot be
// opened ends the attempt with its reason, and a real run on an X server writes a movie
// whose pictures show the screen in the card and the pointer where it was put.

#include "capture/recording_marker.h"
#include "live/live.h"
#include "media/movie_reader.h"
#include "testkit/servers.h"
#include "testkit/test_window.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <cstdlib>
#include <thread>

namespace plim {
namespace {

using namespace testkit;

// Another process's recording, as its marker in the library says: rolling, being finished,
// or left by a process that is gone (which refuses nothing).
TEST(LiveSessionTest, GoingLiveIsRefusedWhileARecordingNeedsTheCaptureAndWithoutAScreen)
{
    TempDir library;
    int opened = 0;
    LiveServices services;
    services.recording = [&] { return recordingActivityIn(library.path()); };
    services.openDesktop = [&]() -> Result<std::unique_ptr<Desktop>> {
        ++opened;
        return fail("No display is available to record.");
    };
    LiveSession session(services);
    auto sink = std::make_shared<MonitorLiveSink>();

    RecordingMarker finishing = RecordingMarker::ofThisProcess(false);
    finishing.phase = RecordingMarker::Phase::finishing;
    ASSERT_TRUE(finishing.write(library / "Finishing.mov"));
    auto refused = session.goLive({}, {sink});
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().sentence,
        "Your plim is still being finished. Go live again in a moment, when it is in your library.");
    // A rolling plim outweighs one being finished.
    ASSERT_TRUE(RecordingMarker::ofThisProcess(false).write(library / "Rolling.mov"));
    refused = session.goLive({}, {sink});
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().sentence,
        "A plim is rolling. Stop it first, then go live. The stream and the recording share one capture.");
    EXPECT_EQ(opened, 0);

    // Markers of a process that is gone, rolling or finishing, are no refusal.
    RecordingMarker gone = RecordingMarker::ofThisProcess(false);
    gone.pid = 999999999;
    ASSERT_TRUE(gone.write(library / "Rolling.mov"));
    gone.phase = RecordingMarker::Phase::finishing;
    ASSERT_TRUE(gone.write(library / "Finishing.mov"));
    std::vector<std::string> said;
    auto noScreen = session.goLive({.progress = [&](const std::string& s) { said.push_back(s); }}, {sink});
    ASSERT_FALSE(noScreen);
    EXPECT_EQ(noScreen.error().sentence, "Plim could not open your screen: No display is available to record.");
    EXPECT_EQ(said, std::vector<std::string>{"Opening your screen"});
    EXPECT_FALSE(session.isLive());
}

TEST(FileLiveSinkTest, AnExistingFileIsLeftAsItIs)
{
    TempDir folder;
    writeText(folder / "taken.mkv", "someone's movie");
    FileLiveSink sink(folder / "taken.mkv");
    EXPECT_EQ(sink.health(), LiveSinkHealth{LiveSinkHealth::Idle{}});
    Image frame = Image::allocate(64, 36);
    sink.consume({frame, 0, 1.0 / 60, 0});
    ASSERT_TRUE(eventually([&] { return std::holds_alternative<LiveSinkHealth::Failed>(sink.health().state); }));
    EXPECT_EQ(healthSentence(sink.health()),
        "taken.mkv already exists, so the stream was not written to it; the file is left as it is. Name a new file and "
        "go live again.");
    sink.consume({frame, 1.0 / 60, 1.0 / 60, 1});
    sink.close();
    ASSERT_TRUE(sink.finished());
    EXPECT_FALSE(*sink.finished());
    EXPECT_EQ(readText(folder / "taken.mkv"), "someone's movie");
}

int channelDistance(const uint8_t* a, uint32_t rgb)
{
    return std::abs(a[2] - int(rgb >> 16 & 0xff)) + std::abs(a[1] - int(rgb >> 8 & 0xff)) + std::abs(a[0] - int(rgb & 0xff));
}

TEST(LiveSessionTest, ARealRunWritesTheComposedScreenWithThePointerWhereItWasPut)
{
    XvfbServer x{"640x400x24"};
    if (!x.isUp())
        GTEST_SKIP() << "Xvfb could not start here";
    const uint32_t green = 0x20a050;
    TestWindow window(x.display(), 0, 0, 640, 400, green);
    ASSERT_TRUE(window.isOpen());
    ASSERT_EQ(runCommand({"xdotool", "mousemove", "160", "100"}, {"DISPLAY=" + x.display()}).status, 0);

    TempDir folder;
    auto file = std::make_shared<FileLiveSink>(folder / "live.mkv");
    LiveSession session({.openDesktop = [&] { return Desktop::create(x.display()); }});
    ASSERT_TRUE(session.goLive({.canvas = {320, 180}, .switches = {.bubble = false}}, {file}));
    LiveHealthReport report;
    for (int i = 0; i < 3; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        report = session.refreshHealth();
    }
    EXPECT_EQ(report.line, "live.mkv: Live.");
    EXPECT_FALSE(report.ended);
    session.stop();
    ASSERT_TRUE(file->finished());
    ASSERT_TRUE(*file->finished()) << file->finished()->error().sentence;

    const fs::path movie = folder / "live.mkv";
    EXPECT_EQ(probe(movie, "v:0", "stream=codec_name,width,height"), "h264,320,180");
    const int frames = std::atoi(probe(movie, "v:0", "stream=nb_read_frames", {"-count_frames"}).c_str());
    EXPECT_EQ(frames, file->framesWritten());
    // The frames carry the clock's tick times: from 0 to the end of the run, never closer
    // than a 60 fps tick (how many ticks the render missed depends on this machine's load).
    std::istringstream times(probe(movie, "v:0", "frame=pts_time"));
    std::vector<double> pts;
    for (std::string line; std::getline(times, line);)
        if (!line.empty() && line != ",")
            pts.push_back(std::atof(line.c_str()));
    ASSERT_EQ(static_cast<int>(pts.size()), frames);
    ASSERT_GE(frames, 20);
    EXPECT_NEAR(pts.front(), 0, 0.002);
    EXPECT_GT(pts.back(), 1.2);
    for (size_t i = 1; i < pts.size(); ++i)
        ASSERT_GE(pts[i] - pts[i - 1], 1.0 / 60 - 0.002) << i << ": " << pts[i - 1] << " to " << pts[i];

    // Where the screen's pixels land on the canvas, as the same stage draws them.
    auto stage = StageRenderer::create(
        wearing(StageSpec{}, PlimLook{}), {320, 180}, {.content = {640, 400}, .hasKeycaps = false});
    ASSERT_TRUE(stage);
    const Affine toCanvas = (*stage)->placement({640, 400}, StageMoment{}).sourceToOutput;
    auto reader = MovieReader::create(movie);
    ASSERT_TRUE(reader) << reader.error().sentence;
    ASSERT_TRUE((*reader)->seek(0.6));
    auto picture = (*reader)->next();
    ASSERT_TRUE(picture && *picture);
    const Image& shot = (*picture)->image;

    const Point middle = toCanvas.apply(Point{320, 200});
    EXPECT_LT(channelDistance(shot.row(int(middle.y)) + int(middle.x) * 4, green), 30);
    // The pointer's tip is at (160, 100): something unlike the screen is drawn just below and
    // right of it, while the same spot across the screen shows the screen alone.
    auto differs = [&](Point at) {
        int most = 0;
        for (int dy = 1; dy <= 5; ++dy)
            for (int dx = 1; dx <= 4; ++dx)
                most = std::max(most, channelDistance(shot.row(int(at.y) + dy) + (int(at.x) + dx) * 4, green));
        return most;
    };
    EXPECT_GT(differs(toCanvas.apply(Point{160, 100})), 120);
    EXPECT_LT(differs(toCanvas.apply(Point{480, 300})), 30);
}

} // namespace
} // namespace plim
