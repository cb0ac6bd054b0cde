#include "base/clock.h"
#include "base/log.h"
#include "capture/cursor_recorder.h"
#include "testkit/testkit.h"

#include <chrono>
#include <gtest/gtest.h>
#include <thread>

using namespace plim;
using namespace plim::testkit;

namespace {

const CursorRecorder::Display display{-1440, -900, 1440, 900, 2};

struct Rig {
    ManualClock clock{500.0};
    ScriptedPointerSource pointer;
    ScriptedClickSource clicks;
    CursorRecorder recorder;

    explicit Rig(std::optional<uint32_t> windowID = std::nullopt)
        : recorder(display, windowID, pointer, &clicks, clock)
    {
        pointer.setPosition(PointerSource::Point{10, 20});
        recorder.start(CursorRecorder::Polling::manual);
    }

    // Polls `n` ticks, 1/60 s apart (the clock is set, not summed, so times are exact).
    void tick(int n = 1)
    {
        for (int i = 0; i < n; ++i) {
            recorder.pollOnce();
            clock.set(500.0 + ++ticks / 60.0);
        }
    }
    int ticks = 0;
};

} // namespace

TEST(CursorRecorder, StartsEmptyWithTheDisplayGeometry)
{
    Rig rig;
    CursorTrack track = rig.recorder.stop();
    EXPECT_EQ(track.displayX, -1440);
    EXPECT_EQ(track.displayY, -900);
    EXPECT_EQ(track.displayWidth, 1440);
    EXPECT_EQ(track.displayHeight, 900);
    EXPECT_EQ(track.scale, 2);
    EXPECT_EQ(track.videoStartOffsetMS, 0);
    EXPECT_FALSE(track.subjectKind);
    EXPECT_FALSE(track.cameraOffsetMS);
    EXPECT_TRUE(track.samples.empty() && track.clicks.empty() && track.marks.empty() && track.frames.empty());
    EXPECT_EQ(rig.recorder.startUptime(), 500.0);
}

TEST(CursorRecorder, SamplesAreRoundedTimedAndFlaggedWhileTyping)
{
    Rig rig;
    rig.pointer.setPosition(PointerSource::Point{2.25, -0.25});
    rig.pointer.setSecondsSinceLastKeyDown(0.0333);
    rig.recorder.pollOnce();

    rig.clock.advance(0.0504);
    rig.pointer.setPosition(PointerSource::Point{2.24, 1919.96});
    rig.pointer.setSecondsSinceLastKeyDown(1.0 / 30.0);
    rig.recorder.pollOnce();

    rig.clock.advance(2.0);
    rig.pointer.setSecondsSinceLastKeyDown(5);
    rig.recorder.pollOnce();

    auto samples = rig.recorder.stop().samples;
    ASSERT_EQ(samples.size(), 3u);
    EXPECT_EQ(samples[0], (CursorSample{0, 2.3, -0.3, 1}));
    EXPECT_EQ(samples[1], (CursorSample{50, 2.2, 1920.0, 0}));
    EXPECT_EQ(samples[2], (CursorSample{2050, 2.2, 1920.0, 0}));
}

TEST(CursorRecorder, TicksWithoutAPointerAreSkipped)
{
    Rig rig(7u);
    rig.pointer.setWindowFrame(7, PointerSource::Rect{0, 0, 800, 600});
    rig.pointer.setPosition(std::nullopt);
    rig.tick(5);
    EXPECT_EQ(rig.pointer.windowFrameQueries(), 0);
    rig.pointer.setPosition(PointerSource::Point{std::nan(""), 3});
    rig.tick(1);
    rig.pointer.setPosition(PointerSource::Point{1, 2});
    rig.tick(1);
    // The first tick that counted asks for the window frame.
    EXPECT_EQ(rig.pointer.windowFrameQueries(), 1);
    EXPECT_EQ(rig.recorder.stop().samples.size(), 1u);
}

TEST(CursorRecorder, PausingTwiceAndResumingOnceCountsOnePause)
{
    Rig twice;
    Rig once;
    for (Rig* rig : {&twice, &once}) {
        rig->clock.advance(1.0);
        rig->recorder.setPaused(false); // resuming while not paused changes nothing
        EXPECT_EQ(rig->recorder.elapsedMS(), 1000);
        rig->recorder.setPaused(true);
        rig->clock.advance(0.5);
        EXPECT_EQ(rig->recorder.elapsedMS(), 1000); // the clock stands still while paused
    }
    twice.recorder.setPaused(true);
    for (Rig* rig : {&twice, &once}) {
        rig->clock.advance(2.0);
        rig->recorder.setPaused(false);
        EXPECT_FALSE(rig->recorder.isPaused());
        rig->clock.advance(0.25);
    }
    EXPECT_EQ(twice.recorder.elapsedMS(), 1250);
    EXPECT_EQ(once.recorder.elapsedMS(), 1250);
}

TEST(CursorRecorder, NothingIsAppendedWhilePausedOrAfterStop)
{
    Rig rig;
    rig.tick();
    rig.recorder.mark();
    rig.clicks.press({ClickSource::Button::left, 5, -40.5});
    rig.clicks.press({ClickSource::Button::right, 6, 7});
    rig.clicks.press({ClickSource::Button::other, 8, 9});

    rig.recorder.setPaused(true);
    rig.tick(3);
    rig.recorder.mark();
    rig.clicks.press({ClickSource::Button::left, 1, 1});
    rig.recorder.setPaused(false);

    rig.clock.advance(0.1);
    rig.recorder.mark();
    CursorTrack track = rig.recorder.stop();
    EXPECT_EQ(rig.clicks.installedCount(), 0);

    rig.recorder.mark();
    rig.recorder.pollOnce();
    rig.clicks.press({ClickSource::Button::left, 2, 2});
    EXPECT_EQ(rig.recorder.stop(), track);

    EXPECT_EQ(track.samples.size(), 1u);
    // Marks at the first tick (1/60 s) and 0.1 s after resuming; the pause is left out.
    EXPECT_EQ(track.marks, (std::vector<Mark>{{16}, {116}}));
    // Left and right presses only; a press above the main display keeps its negative y.
    EXPECT_EQ(track.clicks, (std::vector<ClickEvent>{{16, 5, -40.5}, {16, 6, 7}}));
}

TEST(CursorRecorder, ARefusedClickSourceLeavesPointerRecording)
{
    ManualClock clock;
    ScriptedPointerSource pointer;
    pointer.setPosition(PointerSource::Point{1, 1});
    ScriptedClickSource clicks;
    clicks.setRefusing(true);
    LogCapture log;
    CursorRecorder recorder(display, std::nullopt, pointer, &clicks, clock);
    recorder.start(CursorRecorder::Polling::manual);
    EXPECT_FALSE(recorder.isClickMonitorInstalled());
    EXPECT_TRUE(log.contains("clicks are not recorded"));
    recorder.pollOnce();
    EXPECT_EQ(recorder.stop().samples.size(), 1u);
}

TEST(CursorRecorder, WindowFramesAreKeyedOnlyWhenTheyChange)
{
    Rig rig(42u);
    // The window covers exactly the display: no key.
    rig.pointer.setWindowFrame(42, PointerSource::Rect{-1440, -900, 1440, 900});
    rig.tick(30);
    EXPECT_EQ(rig.pointer.windowFrameQueries(), 1);

    rig.pointer.setWindowFrame(42, PointerSource::Rect{100, 50, 800, 600});
    rig.tick(30); // tick 31 asks again
    EXPECT_EQ(rig.pointer.windowFrameQueries(), 2);

    // Unchanged: no second key. Degenerate or missing: ignored.
    rig.tick(30);
    rig.pointer.setWindowFrame(42, PointerSource::Rect{100, 50, 0, 600});
    rig.tick(30);
    rig.pointer.setWindowFrame(42, std::nullopt);
    rig.tick(30);

    // A move during a pause is kept, stamped with the paused clock.
    rig.pointer.setWindowFrame(42, PointerSource::Rect{120, 50, 800, 600});
    int64_t pausedAt = rig.recorder.elapsedMS();
    rig.recorder.setPaused(true);
    rig.tick(30);
    rig.recorder.setPaused(false);

    CursorTrack track = rig.recorder.stop();
    EXPECT_EQ(rig.pointer.windowFrameQueries(), 6);
    ASSERT_EQ(track.frames.size(), 2u);
    EXPECT_EQ(track.frames[0], (CursorTrack::FrameKey{500, 100, 50, 800, 600}));
    EXPECT_EQ(track.frames[1], (CursorTrack::FrameKey{pausedAt, 120, 50, 800, 600}));
    EXPECT_EQ(track.samples.size(), 150u);
}

TEST(CursorRecorder, WithoutAWindowNoFrameIsAsked)
{
    Rig rig;
    rig.tick(61);
    EXPECT_EQ(rig.pointer.windowFrameQueries(), 0);
    EXPECT_TRUE(rig.recorder.stop().frames.empty());
}

TEST(CursorRecorder, FlushesTheTrackToDiskEvery300Samples)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    fs::path file = dir / "B.cursor.json";
    Rig rig;
    rig.recorder.setFlushMovie(movie);

    rig.tick(299);
    EXPECT_FALSE(fs::exists(file));
    rig.tick();
    auto first = CursorTrack::read(movie);
    ASSERT_TRUE(first) << first.error().sentence;
    EXPECT_EQ(first->samples.size(), 300u);

    // Paused ticks do not count toward the next flush.
    rig.recorder.setPaused(true);
    rig.tick(100);
    rig.recorder.setPaused(false);
    rig.recorder.mark();
    rig.tick(299);
    EXPECT_EQ(CursorTrack::read(movie)->samples.size(), 300u);
    rig.tick();
    auto second = CursorTrack::read(movie);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->samples.size(), 600u);
    EXPECT_EQ(second->marks.size(), 1u);
    EXPECT_EQ(*second, rig.recorder.snapshot());

    // A flush that cannot be written is ignored; recording goes on.
    rig.recorder.setFlushMovie(dir / "gone" / "B.mov");
    rig.tick(300);
    EXPECT_EQ(rig.recorder.stop().samples.size(), 900u);
    EXPECT_FALSE(fs::exists(dir / "gone"));
}

TEST(CursorRecorder, TimerPollsOnItsOwnThreadUntilStopped)
{
    ScriptedPointerSource pointer;
    pointer.setPosition(PointerSource::Point{3, 4});
    ScriptedClickSource clicks;
    CursorRecorder recorder(display, std::nullopt, pointer, &clicks);
    recorder.start();
    for (int i = 0; i < 1000 && recorder.snapshot().samples.size() < 6; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    clicks.press({ClickSource::Button::left, 3, 4});
    CursorTrack track = recorder.stop();
    ASSERT_GE(track.samples.size(), 6u);
    for (size_t i = 1; i < track.samples.size(); ++i)
        EXPECT_LE(track.samples[i - 1].t, track.samples[i].t);
    EXPECT_EQ(track.clicks.size(), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(recorder.snapshot().samples.size(), track.samples.size());
}

TEST(CursorRecorder, DroppedRecorderStopsItsThreadAndHandlers)
{
    ScriptedPointerSource pointer;
    pointer.setPosition(PointerSource::Point{3, 4});
    ScriptedClickSource clicks;
    {
        CursorRecorder recorder(display, 9u, pointer, &clicks);
        recorder.start();
        EXPECT_EQ(clicks.installedCount(), 1);
    }
    EXPECT_EQ(clicks.installedCount(), 0);
    int queries = pointer.windowFrameQueries();
    clicks.press({ClickSource::Button::left, 1, 1}); // nobody listens: must not crash
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(pointer.windowFrameQueries(), queries);
}

TEST(CursorRecorder, MarksPausesAndClicksFromOtherThreadsWhileThePollRuns)
{
    ScriptedPointerSource pointer;
    pointer.setPosition(PointerSource::Point{3, 4});
    ScriptedClickSource clicks;
    CursorRecorder recorder(display, 1u, pointer, &clicks);
    pointer.setWindowFrame(1, PointerSource::Rect{0, 0, 10, 10});
    recorder.start();
    std::thread presser([&] {
        for (int i = 0; i < 300; ++i)
            clicks.press({ClickSource::Button::left, double(i), 0});
    });
    for (int i = 0; i < 300; ++i) {
        recorder.mark();
        recorder.setPaused(true);
        recorder.mark(); // dropped
        recorder.setPaused(false);
    }
    presser.join();
    CursorTrack track = recorder.stop();
    EXPECT_EQ(track.marks.size(), 300u);
    EXPECT_LE(track.clicks.size(), 300u);
    auto inOrder = [](const auto& items) {
        for (size_t i = 1; i < items.size(); ++i)
            if (items[i - 1].t > items[i].t)
                return false;
        return true;
    };
    EXPECT_TRUE(inOrder(track.marks));
    EXPECT_TRUE(inOrder(track.clicks));
    EXPECT_TRUE(inOrder(track.samples));
}
