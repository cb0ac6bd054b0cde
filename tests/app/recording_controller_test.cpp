// The recording controller over a scripted screen: preflight lines, countdown and its
// cancel, phases, pause and marks, replim, the beacon it posts and the moment it files.

#include "app/recording_controller.h"
#include "base/clock.h"
#include "base/files.h"
#include "capture/ticking_screen_source.h"
#include "live/live_session.h"
#include "suite/suite.h"
#include "testkit/servers.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

namespace plim {
namespace {

using namespace testkit;
using namespace std::chrono_literals;

// Grey 64 x 48 frames at the asked rate.
class ScriptedScreenSource final : public TickingScreenSource {
public:
    ~ScriptedScreenSource() override { stop(); }
    Rect frame() const override { return {0, 0, 64, 48}; }
    double scale() const override { return 1.0; }
    std::optional<uint32_t> windowID() const override { return std::nullopt; }

private:
    void run(std::stop_token stop) override
    {
        for (double next = systemUptime(); !stop.stop_requested();) {
            std::this_thread::sleep_for(std::chrono::duration<double>(next - systemUptime()));
            Image image = Image::allocate(64, 48);
            std::memset(image.pixels.get(), 0x80, size_t(image.stride) * 48);
            deliver(CapturedFrame{image, systemUptime()}, next);
        }
    }
};

class RecordingControllerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!x.isUp())
            GTEST_SKIP() << "Xvfb could not start here";
        settings.display = x.display();
        auto writer = SuiteGraphWriter::create("plim", SuiteGraphWriter::Options{false, dir / "graph", 1 << 20});
        ASSERT_TRUE(writer.has_value());
        moments = std::move(*writer);
        beacon = std::make_unique<BeaconBroadcaster>(SuiteApp::plim, [this](SuiteApp, const std::string& payload) -> Status {
            std::lock_guard lock(postedLock);
            posted.push_back(payload);
            return {};
        });
    }

    RecordingController::Environment environment()
    {
        RecordingController::Environment env;
        env.libraryFolder = dir / "Plim";
        env.openDevices = [](const CaptureSettings&) -> Result<CaptureDevices> {
            CaptureDevices devices;
            devices.screen = std::make_unique<ScriptedScreenSource>();
            return devices;
        };
        env.beacon = beacon.get();
        env.moments = moments.get();
        env.countdownStep = 0.05;
        env.onCountdown = [this](int left) { countdowns.push_back(left); };
        env.onPlimFinished = [this](const RawPlim& plim, const std::optional<std::string>&) { finished.push_back(plim.movie); };
        return env;
    }

    std::vector<std::string> postedWords()
    {
        std::lock_guard lock(postedLock);
        std::vector<std::string> words;
        for (const auto& p : posted)
            words.push_back(p.substr(0, p.find(' ')));
        return words;
    }

    XvfbServer x{"320x240x24"};
    TempDir dir;
    CaptureSettings settings;
    std::unique_ptr<SuiteGraphWriter> moments;
    std::unique_ptr<BeaconBroadcaster> beacon;
    std::mutex postedLock;
    std::vector<std::string> posted;
    std::vector<int> countdowns;
    std::vector<fs::path> finished;
};

TEST_F(RecordingControllerTest, PreflightNamesWhatBlocksARecording)
{
    writeText(dir / "afile", "x");
    struct Case {
        std::optional<std::string> display;
        fs::path library;
        size_t lines;
        const char* first;
    };
    const Case cases[] = {
        {x.display(), dir / "Plim", 0, ""},
        {":999", dir / "Plim", 1, "There is no X display to record"},
        {x.display(), dir / "afile" / "Plim", 1, "The library folder "},
        {":999", dir / "afile" / "Plim", 2, "There is no X display to record"},
    };
    for (const Case& c : cases) {
        auto lines = RecordingController::preflightBlockingLines(c.display, c.library);
        ASSERT_EQ(lines.size(), c.lines) << c.library;
        if (!lines.empty()) {
            EXPECT_EQ(lines[0].rfind(c.first, 0), 0u) << lines[0];
        }
    }
}

TEST_F(RecordingControllerTest, RecordsPausesMarksAndFilesThePlim)
{
    auto env = environment();
    // What another process going live reads of this recording, while its files are finished.
    std::optional<RecordingActivity> whileFinishing;
    env.ensureIdentity = [&](const fs::path&) { whileFinishing = recordingActivityIn(dir / "Plim"); };
    RecordingController controller(std::move(env));
    ASSERT_TRUE(controller.record(settings, 2).has_value());
    EXPECT_EQ(countdowns, (std::vector<int>{2, 1}));
    EXPECT_EQ(controller.phase(), RecordingController::Phase::rolling);
    std::this_thread::sleep_for(400ms);
    controller.mark();
    controller.togglePause();
    EXPECT_TRUE(controller.isPaused());
    controller.mark(); // ignored while paused
    double pausedAt = controller.elapsed();
    std::this_thread::sleep_for(300ms);
    EXPECT_DOUBLE_EQ(controller.elapsed(), pausedAt);
    controller.togglePause();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(controller.markCount(), 1);
    EXPECT_EQ(recordingActivityIn(dir / "Plim"), RecordingActivity::rolling);
    auto outcome = controller.finishRolling();
    ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;
    EXPECT_EQ(controller.phase(), RecordingController::Phase::idle);
    EXPECT_EQ(whileFinishing, RecordingActivity::finishing);
    EXPECT_EQ(recordingActivityIn(dir / "Plim"), RecordingActivity::none);
    EXPECT_NEAR(outcome.value.seconds, 0.7, 0.15);
    EXPECT_EQ(finished, (std::vector<fs::path>{outcome.value.movie}));
    EXPECT_EQ(postedWords(), (std::vector<std::string>{"rolling", "paused", "rolling", "idle"}));

    auto track = CursorTrack::read(outcome.value.movie);
    ASSERT_TRUE(track.has_value());
    EXPECT_EQ(track->value.marks.size(), 1u);
    std::string stream = readText(moments->activePath());
    EXPECT_NE(stream.find("\"recorded\""), std::string::npos);
    EXPECT_NE(stream.find(baseName(outcome.value.movie)), std::string::npos);
}

TEST_F(RecordingControllerTest, CancelRefusalAndReplim)
{
    RecordingController controller(environment());
    std::stop_source cancel;
    cancel.request_stop();
    auto cancelled = controller.record(settings, 3, cancel.get_token());
    ASSERT_FALSE(cancelled.has_value());
    EXPECT_EQ(cancelled.error().kind, Error::Kind::stopped);
    EXPECT_EQ(controller.phase(), RecordingController::Phase::idle);

    CaptureSettings device = settings;
    device.subject = ScreenSubject{ScreenSubject::Kind::device, {}, 0, {}, "iPad"};
    auto refused = controller.record(device, 0);
    ASSERT_FALSE(refused.has_value());
    EXPECT_EQ(refused.error().sentence,
        "Presenting a plugged-in device is not in this release. Pick a display, a window or an area.");

    ASSERT_TRUE(controller.record(settings, 0).has_value());
    std::this_thread::sleep_for(200ms);
    fs::path first = *controller.movie();
    std::this_thread::sleep_for(1100ms); // the next plim's name differs by its second
    ASSERT_TRUE(controller.replim().has_value());
    EXPECT_FALSE(fs::exists(first));
    EXPECT_FALSE(fs::exists(sidecarPath(first, "cursor.json")));
    std::this_thread::sleep_for(200ms);
    auto outcome = controller.finishRolling();
    ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;
    EXPECT_NE(outcome.value.movie, first);
    EXPECT_TRUE(fs::exists(outcome.value.movie));
}

} // namespace
} // namespace plim
