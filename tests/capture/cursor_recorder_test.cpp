#include "base/clock.h"
#include "base/log.h"
#include "capture/cursor_recorder.h"
#include "testing/scripted_sources.h"
#include "testkit/testkit.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <set>
#include <gtest/gtest.h>
#include <thread>

using namespace plim;
using namespace plim::testkit;

namespace {

const CursorRecorder::Display display{{-1440, -900, 1440, 900}, 2};

// A recorder on a manual clock; the scripted pointer stands for the pointer, the key activity
// and the window frames alike.
struct Rig {
    ManualClock clock{500.0};
    ScriptedPointerSource pointer;
    ScriptedClickSource clicks;
    CursorRecorder recorder;

    explicit Rig(std::optional<uint32_t> windowID = std::nullopt, bool refuseClicks = false)
        : recorder(display, windowID, {&pointer, &pointer, &pointer, &clicks}, clock)
    {
        pointer.setPosition(Point{10, 20});
        clicks.setRefusing(refuseClicks);
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

// A refused click source is logged and leaves the pointer recording.
TEST(CursorRecorder, SamplesAreRoundedTimedAndFlaggedWhileTypingEvenWithClicksRefused)
{
    LogCapture log;
    Rig rig(std::nullopt, true);
    EXPECT_FALSE(rig.recorder.isClickMonitorInstalled());
    EXPECT_TRUE(log.contains("clicks are not recorded"));
    EXPECT_EQ(rig.recorder.snapshot(), (CursorTrack{-1440, -900, 1440, 900, 2}));
    EXPECT_EQ(rig.recorder.startUptime(), 500.0);
    // {pointer, seconds since a key went down, seconds to the next poll}
    for (auto [at, sinceKey, advance] : std::vector<std::tuple<Point, double, double>>{
             {{2.25, -0.25}, 0.0333, 0.0504}, {{2.24, 1919.96}, 1.0 / 30.0, 2.0}, {{2.24, 1919.96}, 5, 0}}) {
        rig.pointer.setPosition(at);
        rig.pointer.setSecondsSinceLastKeyDown(sinceKey);
        rig.recorder.pollOnce();
        rig.clock.advance(advance);
    }

    EXPECT_EQ(rig.recorder.stop().samples,
        (std::vector<CursorSample>{{0, 2.3, -0.3, 1}, {50, 2.2, 1920.0, 0}, {2050, 2.2, 1920.0, 0}}));
    // Without a window no frame is asked.
    EXPECT_EQ(rig.pointer.windowFrameQueries(), 0);
}

TEST(CursorRecorder, PausesStopTheClockOnceAndNothingIsAppendedWhilePausedOrAfterStop)
{
    Rig paused;
    paused.clock.advance(1.0);
    paused.recorder.setPaused(false); // resuming while not paused changes nothing
    EXPECT_EQ(paused.recorder.elapsedMS(), 1000);
    paused.recorder.setPaused(true);
    paused.clock.advance(0.5);
    EXPECT_EQ(paused.recorder.elapsedMS(), 1000); // the clock stands still while paused
    paused.recorder.setPaused(true); // pausing twice and resuming once counts one pause
    paused.clock.advance(2.0);
    paused.recorder.setPaused(false);
    EXPECT_FALSE(paused.recorder.isPaused());
    paused.clock.advance(0.25);
    EXPECT_EQ(paused.recorder.elapsedMS(), 1250);

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

TEST(CursorRecorder, WindowFramesAreKeyedOnlyWhenTheyChangeOnTicksThatCount)
{
    Rig rig(42u);
    // The window covers exactly the display: no key.
    rig.pointer.setWindowFrame(42, Rect{-1440, -900, 1440, 900});
    // Ticks without a usable pointer are skipped and ask for no frame.
    rig.pointer.setPosition(std::nullopt);
    rig.tick(5);
    rig.pointer.setPosition(Point{std::nan(""), 3});
    rig.tick(1);
    EXPECT_EQ(rig.pointer.windowFrameQueries(), 0);
    rig.pointer.setPosition(Point{1, 2});
    rig.tick(30);
    EXPECT_EQ(rig.pointer.windowFrameQueries(), 1);

    // Each frame stands for 30 ticks: unchanged, degenerate or missing ones make no key; a
    // change in any one edge does, keyed at the tick that asked.
    std::vector<CursorTrack::FrameKey> expected;
    for (const auto& [rect, keyed] : std::vector<std::pair<std::optional<Rect>, bool>>{{Rect{100, 50, 800, 600}, true},
             {Rect{100, 50, 800, 600}, false}, {Rect{100, 50, 0, 600}, false}, {std::nullopt, false},
             {Rect{120, 50, 800, 600}, true}, {Rect{120, 60, 800, 600}, true}, {Rect{120, 60, 700, 600}, true},
             {Rect{120, 60, 700, 500}, true}}) {
        rig.pointer.setWindowFrame(42, rect);
        if (keyed)
            expected.push_back({rig.recorder.elapsedMS(), rect->x, rect->y, rect->width, rect->height});
        rig.tick(30);
    }
    // A move during a pause is kept, stamped with the paused clock.
    rig.pointer.setWindowFrame(42, Rect{0, 0, 10, 10});
    expected.push_back({rig.recorder.elapsedMS(), 0, 0, 10, 10});
    rig.recorder.setPaused(true);
    rig.tick(30);
    rig.recorder.setPaused(false);

    CursorTrack track = rig.recorder.stop();
    EXPECT_EQ(rig.pointer.windowFrameQueries(), 10);
    EXPECT_EQ(track.frames, expected);
    EXPECT_EQ(track.samples.size(), 270u);
}

TEST(CursorRecorder, TheJournalTakesWhatIsNewAndTheFinalWriteFoldsItIn)
{
    TempDir dir;
    const fs::path movie = dir / "B.mov", journal = dir / "B.cursor.journal";
    Rig rig;
    // Polling never writes: the journal is another thread's step.
    rig.recorder.setFlushMovie(movie);
    rig.tick(600);
    EXPECT_FALSE(fs::exists(journal));
    ASSERT_TRUE(rig.recorder.journalOnce());
    auto first = fs::file_size(journal);

    // Each step appends only what is new: the second line holds 60 samples, not 660.
    rig.tick(60);
    rig.recorder.mark();
    rig.clicks.press({ClickSource::Button::left, 5, 6});
    ASSERT_TRUE(rig.recorder.journalOnce());
    auto second = fs::file_size(journal) - first;
    EXPECT_LT(second * 5, first);
    ASSERT_TRUE(rig.recorder.journalOnce()); // nothing new: nothing written
    EXPECT_EQ(fs::file_size(journal), first + second);
    // The first frame's offset alone is worth a line, so a rebuilt track places stamps right.
    rig.recorder.setVideoStartOffsetMS(250);
    ASSERT_TRUE(rig.recorder.journalOnce());
    EXPECT_GT(fs::file_size(journal), first + second);
    auto third = fs::file_size(journal);
    rig.recorder.setCameraOffsetMS(40); // and so is the camera's
    ASSERT_TRUE(rig.recorder.journalOnce());
    EXPECT_GT(fs::file_size(journal), third);

    // Killed now, the track is rebuilt from the journal, with a notice; nothing is changed.
    std::string bytes = readText(journal);
    auto rebuilt = CursorTrack::read(movie);
    ASSERT_TRUE(rebuilt) << rebuilt.error().sentence;
    EXPECT_EQ(rebuilt->value, rig.recorder.snapshot());
    EXPECT_EQ(rebuilt->value.videoStartOffsetMS, 250);
    EXPECT_EQ(rebuilt->value.cameraOffsetMS, 40);
    ASSERT_EQ(rebuilt->notices.size(), 1u);
    EXPECT_TRUE(rebuilt->notices[0].starts_with("B.cursor.json was never finished")) << rebuilt->notices[0];
    EXPECT_EQ(readText(journal), bytes);
    EXPECT_FALSE(fs::exists(dir / "B.cursor.json"));

    // A line cut short by the kill is left out and named.
    writeText(journal, bytes + bytes.substr(0, 40));
    auto torn = CursorTrack::read(movie);
    ASSERT_TRUE(torn);
    EXPECT_EQ(torn->value, rig.recorder.snapshot());
    EXPECT_NE(torn->notices[0].find("leaving out 1 damaged line"), std::string::npos);
    writeText(journal, "not a track\n");
    auto useless = CursorTrack::read(movie);
    ASSERT_FALSE(useless);
    EXPECT_EQ(useless.error().kind, Error::Kind::unreadable);
    writeText(journal, bytes);

    // Paused ticks add nothing; stop journals the rest; the final write removes the journal.
    rig.recorder.setPaused(true);
    rig.tick(100);
    rig.recorder.setPaused(false);
    rig.tick(30);
    CursorTrack track = rig.recorder.stop();
    EXPECT_EQ(track.samples.size(), 690u);
    EXPECT_EQ(CursorTrack::read(movie)->value, track);
    ASSERT_TRUE(track.write(movie));
    EXPECT_FALSE(fs::exists(journal));
    EXPECT_EQ(CursorTrack::read(movie)->value, track);

    // A journal that cannot be written is reported; its entries wait for the next step.
    Rig lost;
    lost.recorder.setFlushMovie(dir / "gone" / "B.mov");
    lost.tick(30);
    auto refused = lost.recorder.journalOnce();
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().sentence.find("Nothing recorded so far was lost"), std::string::npos);
    fs::create_directory(dir / "gone");
    ASSERT_TRUE(lost.recorder.journalOnce());
    EXPECT_EQ(CursorTrack::read(dir / "gone" / "B.mov")->value.samples.size(), 30u);
}

// The timer polls on its own thread until stopped or dropped, while other threads mark,
// pause and click.
TEST(CursorRecorder, ThePollRunsOnItsOwnThreadUntilStoppedOrDroppedWhileOtherThreadsMarkPauseAndClick)
{
    ScriptedPointerSource pointer, other;
    other.setPosition(Point{3, 4});
    ScriptedClickSource clicks;
    {
        CursorRecorder dropped(display, 9u, {&other, &other, &other, &clicks});
        dropped.start();
        EXPECT_EQ(clicks.installedCount(), 1);
    }
    EXPECT_EQ(clicks.installedCount(), 0);
    int queries = other.windowFrameQueries();

    pointer.setPosition(Point{3, 4});
    pointer.setWindowFrame(1, Rect{0, 0, 10, 10});
    CursorRecorder recorder(display, 1u, {&pointer, &pointer, &pointer, &clicks});
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
    eventually([&] { return recorder.snapshot().samples.size() >= 6; }, 10);
    // A press after the last resume always lands.
    clicks.press({ClickSource::Button::left, 1000, 0});
    CursorTrack track = recorder.stop();
    ASSERT_GE(track.samples.size(), 6u);
    EXPECT_EQ(track.marks.size(), 300u);
    // Presses during a pause are dropped: what remains is each press at most once, none
    // made up, and the last one.
    std::set<double> pressed;
    for (const auto& click : track.clicks) {
        EXPECT_TRUE(pressed.insert(click.x).second) << "press " << click.x << " recorded twice";
        EXPECT_TRUE(click.x == 1000 || (click.x >= 0 && click.x < 300 && click.x == std::floor(click.x))) << click.x;
    }
    EXPECT_TRUE(pressed.contains(1000));
    EXPECT_TRUE(std::ranges::is_sorted(track.marks, {}, &Mark::t));
    EXPECT_TRUE(std::ranges::is_sorted(track.clicks, {}, &ClickEvent::t));
    EXPECT_TRUE(std::ranges::is_sorted(track.samples, {}, &CursorSample::t));
    // Stopped, it polls no more; the dropped recorder's thread asks for no more frames.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(recorder.snapshot().samples.size(), track.samples.size());
    EXPECT_EQ(other.windowFrameQueries(), queries);
}
