// Plim Camera as a real PipeWire node: a private pipewire and wireplumber, the sink fed a
// known picture (a red half and a white mark that moves 4 pixels a frame), and GStreamer's
// pipewiresrc reading it by the node's name into a file whose frames are checked.

#include "live/camera_sinks.h"
#include "testkit/pipewire_server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace plim {
namespace {

using namespace std::chrono;
namespace fs = std::filesystem;

constexpr int canvasWidth = 320, canvasHeight = 180, markSize = 16, markTrack = 144, markStep = 4;

// Where frame `sequence` draws its mark's left edge.
int markX(int64_t sequence) { return 160 + static_cast<int>(sequence * markStep % markTrack); }

LiveFrame picture(int64_t sequence)
{
    Image image = Image::uninitialized(canvasWidth, canvasHeight);
    for (int y = 0; y < canvasHeight; ++y)
        for (int x = 0; x < canvasWidth; ++x) {
            const bool mark = x >= markX(sequence) && x < markX(sequence) + markSize && y >= 82 && y < 82 + markSize;
            reinterpret_cast<uint32_t*>(image.row(y))[x] = mark ? 0xffffffff
                : x < canvasWidth / 2                           ? 0xffff0000
                                                                : 0xff202020;
        }
    return {image, sequence / 60.0, 1 / 60.0, sequence};
}

class CameraPipeWire : public testing::Test {
protected:
    static void SetUpTestSuite() { server = std::make_unique<testkit::PipeWireServer>(); }
    static void TearDownTestSuite() { server.reset(); }

    void SetUp() override
    {
        if (!server->installed())
            GTEST_SKIP() << server->trouble();
        ASSERT_TRUE(server->isUp()) << server->trouble();
        for (const std::string& pair : server->environment()) {
            const auto eq = pair.find('=');
            env.push_back(std::make_unique<testkit::ScopedEnv>(pair.substr(0, eq), pair.substr(eq + 1)));
        }
        env.push_back(std::make_unique<testkit::ScopedEnv>("PIPEWIRE_REMOTE", std::nullopt));
    }

    // pipewiresrc asking for `format` at `width` x `height`, each frame appended to the file as
    // it comes; `pause` microseconds before each frame is let go when set (a reader that stalls).
    std::unique_ptr<testkit::ChildProcess> consumer(const std::string& format, int width, int height, int pause = 0)
    {
        std::vector<std::string> argv{"gst-launch-1.0", "-q", "pipewiresrc", "target-object=Plim Camera", "!",
            "video/x-raw,format=" + format + ",width=" + std::to_string(width) + ",height=" + std::to_string(height), "!"};
        if (pause > 0)
            argv.insert(argv.end(), {"identity", "sleep-time=" + std::to_string(pause), "!"});
        argv.insert(argv.end(), {"filesink", "location=" + (dir / "frames.raw").string(), "buffer-mode=unbuffered", "sync=false"});
        return std::make_unique<testkit::ChildProcess>(argv, server->environment(), "/dev/null", dir / "gst.log");
    }

    // Feeds frames at 60 a second until `done` holds or `seconds` pass.
    void feed(LiveSink& sink, double seconds, const std::function<bool()>& done = [] { return false; })
    {
        const auto end = steady_clock::now() + duration<double>(seconds);
        auto next = steady_clock::now();
        while (steady_clock::now() < end && !done()) {
            sink.consume(picture(sequence++));
            next += microseconds(16667);
            std::this_thread::sleep_until(next);
        }
    }

    size_t received() const
    {
        std::error_code ec;
        const auto size = fs::file_size(dir / "frames.raw", ec);
        return ec ? 0 : size;
    }

    std::vector<uint8_t> frames() const
    {
        const std::string text = testkit::readText(dir / "frames.raw");
        return {text.begin(), text.end()};
    }

    static inline std::unique_ptr<testkit::PipeWireServer> server;
    std::vector<std::unique_ptr<testkit::ScopedEnv>> env;
    testkit::TempDir dir;
    int64_t sequence = 0;
};

bool isRunning(const LiveSink& sink) { return std::holds_alternative<LiveSinkHealth::Running>(sink.health().state); }

TEST_F(CameraPipeWire, AConsumerReceivesThePictureInOrderAtTheFedRate)
{
    auto sink = makePipeWireCameraSink();
    EXPECT_EQ(sink->health(), LiveSinkHealth{LiveSinkHealth::Idle{}});
    sink->consume(picture(sequence++));
    EXPECT_EQ(sink->health(), LiveSinkHealth{LiveSinkHealth::Opening{}}) << "nobody reads the camera yet";

    auto gst = consumer("BGRx", canvasWidth, canvasHeight);
    feed(*sink, 20, [&] { return isRunning(*sink) && received() > 0; });
    ASSERT_TRUE(isRunning(*sink)) << testkit::readText(dir / "gst.log");

    // The rate at the consumer while 60 frames a second are fed.
    const size_t frameBytes = canvasWidth * canvasHeight * 4;
    const size_t before = received();
    const auto start = steady_clock::now();
    feed(*sink, 2);
    const double seconds = duration<double>(steady_clock::now() - start).count();
    const double rate = static_cast<double>(received() - before) / frameBytes / seconds;
    EXPECT_GT(rate, 15) << "frames stopped flowing"; // a flow check; bench/ measures speed

    gst.reset();
    sink->close();
    EXPECT_EQ(sink->health(), LiveSinkHealth{LiveSinkHealth::Idle{}});

    const std::vector<uint8_t> bytes = frames();
    const size_t count = bytes.size() / frameBytes;
    ASSERT_GE(count, 60u);
    int lastMark = -1;
    for (size_t i = 0; i < count; ++i) {
        SCOPED_TRACE(testing::Message() << "frame " << i);
        const uint8_t* frame = bytes.data() + i * frameBytes;
        auto pixel = [&](int x, int y) {
            const uint8_t* p = frame + (y * canvasWidth + x) * 4;
            return std::array<int, 3>{p[0], p[1], p[2]};
        };
        ASSERT_EQ(pixel(40, 90), (std::array<int, 3>{0, 0, 255}));
        ASSERT_EQ(pixel(300, 20), (std::array<int, 3>{32, 32, 32}));
        // The mark stands where one fed frame put it, and each frame shows a later one.
        int mark = -1;
        for (int x = 160; x < canvasWidth && mark < 0; ++x)
            if (pixel(x, 90) == std::array<int, 3>{255, 255, 255})
                mark = x;
        ASSERT_GE(mark, 160);
        ASSERT_EQ((mark - 160) % markStep, 0);
        ASSERT_EQ(pixel(mark + markSize - 1, 90), (std::array<int, 3>{255, 255, 255}));
        if (lastMark >= 0) {
            ASSERT_NE(mark, lastMark) << "a frame came twice";
        }
        lastMark = mark;
    }
}

TEST_F(CameraPipeWire, AConsumerAskingForNv12AtASmallerSizeGetsThePictureFitted)
{
    // As browsers' WebRTC camera reads it: YUV only.
    constexpr int width = canvasWidth / 2, height = canvasHeight / 2;
    auto sink = makePipeWireCameraSink();
    auto gst = consumer("NV12", width, height);
    feed(*sink, 20, [&] { return isRunning(*sink) && received() > 0; });
    ASSERT_TRUE(isRunning(*sink)) << testkit::readText(dir / "gst.log");
    feed(*sink, 0.2);
    gst.reset();
    const std::vector<uint8_t> bytes = frames();
    const size_t frameBytes = width * height * 3 / 2;
    ASSERT_GE(bytes.size(), frameBytes);
    const uint8_t* frame = bytes.data() + (bytes.size() / frameBytes - 1) * frameBytes;
    const uint8_t* chroma = frame + width * height;
    // The red half and the grey ground where the fitted picture puts them, as BT.601 limited range.
    EXPECT_EQ(frame[45 * width + 20], 81);
    EXPECT_EQ(chroma[22 * width + 20], 90);
    EXPECT_NEAR(frame[10 * width + 150], 43, 1);
}

std::string failure(const LiveSink& sink)
{
    const auto health = sink.health();
    const auto* failed = std::get_if<LiveSinkHealth::Failed>(&health.state);
    return failed ? failed->sentence : std::string("(not failed)");
}

TEST_F(CameraPipeWire, AReaderThatStopsTakingFramesFailsTheSinkUntilItTakesOneAgain)
{
    // The reader holds every buffer for 8 s: 120 frames in a row find none free, even fed at
    // a third of their rate on a busy machine.
    auto sink = makePipeWireCameraSink();
    auto gst = consumer("BGRx", canvasWidth, canvasHeight, 8000000);
    feed(*sink, 20, [&] { return isRunning(*sink); });
    ASSERT_TRUE(isRunning(*sink)) << testkit::readText(dir / "gst.log");
    feed(*sink, 20, [&] { return !isRunning(*sink); });
    EXPECT_EQ(failure(*sink), "Plim Camera is not taking frames — PipeWire has stopped pulling. Stop and go live again; "
                              "if it persists, restart PipeWire (systemctl --user restart pipewire wireplumber).");
    // A buffer given back is taken again.
    feed(*sink, 20, [&] { return isRunning(*sink); });
    EXPECT_TRUE(isRunning(*sink));
}

TEST_F(CameraPipeWire, WithoutPipeWireItSaysSoTriesAgainEveryTwoSecondsAndNoticesItGoing)
{
    testkit::TempDir nowhere;
    auto runtime = std::make_unique<testkit::ScopedEnv>("PIPEWIRE_RUNTIME_DIR", nowhere.path().string());
    ManualClock clock;
    auto sink = makePipeWireCameraSink({"Plim Camera", &clock});
    sink->consume(picture(sequence++));
    const std::string missing = failure(*sink);
    EXPECT_TRUE(missing.starts_with("Plim Camera could not reach PipeWire (")) << missing;
    EXPECT_TRUE(missing.ends_with("). Start it with systemctl --user start pipewire wireplumber, then go live again."))
        << missing;

    // PipeWire is there now; the sink looks again only 2 s after its last try.
    testkit::PipeWireServer own;
    ASSERT_TRUE(own.isUp()) << own.trouble();
    runtime.reset();
    runtime = std::make_unique<testkit::ScopedEnv>("PIPEWIRE_RUNTIME_DIR", own.runtimeDir().string());
    clock.advance(1.95);
    sink->consume(picture(sequence++));
    EXPECT_EQ(failure(*sink), missing);
    clock.advance(0.05);
    sink->consume(picture(sequence++));
    EXPECT_EQ(sink->health(), LiveSinkHealth{LiveSinkHealth::Opening{}});

    // PipeWire ends as in a crash.
    own.stopPipeWire();
    feed(*sink, 10, [&] { return std::holds_alternative<LiveSinkHealth::Failed>(sink->health().state); });
    const std::string lost = failure(*sink);
    EXPECT_TRUE(lost.starts_with("Plim Camera lost PipeWire (")) << lost;
    EXPECT_TRUE(lost.ends_with("). Check that PipeWire is running (systemctl --user start pipewire wireplumber), then go "
                               "live again."))
        << lost;
    sink->close();
    EXPECT_EQ(sink->health(), LiveSinkHealth{LiveSinkHealth::Idle{}});
}

} // namespace
} // namespace plim
