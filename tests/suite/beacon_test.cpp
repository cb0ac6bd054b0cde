#include "suite/beacon.h"

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <gtest/gtest.h>
#include <limits>
#include <thread>

using namespace plim;

TEST(Beacon, NamesFollowTheAppSlug)
{
    EXPECT_EQ(beaconName(SuiteApp::plim), "app.plim.recording");
    EXPECT_EQ(controlName(SuiteApp::tovan), "app.tovan.control");
    EXPECT_EQ(filedName(SuiteApp::sorvel), "app.sorvel.filed");
    EXPECT_EQ(suiteAppFromSlug("sorvel"), SuiteApp::sorvel);
    EXPECT_FALSE(suiteAppFromSlug("Plim"));
    EXPECT_EQ(controlVerbFromText("mark"), ControlVerb::mark);
    EXPECT_FALSE(controlVerbFromText("pause"));
}

TEST(Beacon, WholeSecondsTruncateAndSaturate)
{
    EXPECT_EQ(wholeSeconds(12.9), 12);
    EXPECT_EQ(wholeSeconds(-12.9), -12);
    EXPECT_EQ(wholeSeconds(std::nan("")), 0);
    EXPECT_EQ(wholeSeconds(1e300), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(wholeSeconds(std::numeric_limits<double>::infinity()), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(wholeSeconds(-1e300), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(wholeSeconds(9223372036854775807.0), std::numeric_limits<int64_t>::max());
}

TEST(Beacon, PayloadsRoundTripAndBadOnesDoNotParse)
{
    EXPECT_EQ(BeaconState::rolling(1731622544.7).wirePayload(), "rolling 1731622544");
    EXPECT_EQ(BeaconState::paused(12.9).wirePayload(), "paused 12");
    EXPECT_EQ(BeaconState::idle().wirePayload(), "idle");

    EXPECT_EQ(BeaconState::parse("rolling 1731622544"), BeaconState::rolling(1731622544));
    EXPECT_EQ(BeaconState::parse("paused 12.9"), BeaconState::paused(12.9));
    EXPECT_EQ(BeaconState::parse("paused -3"), BeaconState::paused(-3));
    EXPECT_EQ(BeaconState::parse("rolling 1e12"), BeaconState::rolling(1e12));
    EXPECT_EQ(BeaconState::parse("idle"), BeaconState::idle());
    for (std::string_view bad : {"rolling -5", "rolling 1e13", "paused 1e13", "paused nan", "rolling inf", "idle 4",
             "rolling", "rolling ", "paused x", "rolling  5", "Rolling 5", "", "stopped 5", "rolling 5 6"})
        EXPECT_FALSE(BeaconState::parse(bad)) << bad;
}

TEST(Beacon, ShouldPostSkipsRepeatsAndAnchorJitter)
{
    EXPECT_TRUE(shouldPost("idle", std::nullopt));
    EXPECT_FALSE(shouldPost("idle", "idle"));
    EXPECT_FALSE(shouldPost("rolling 101", "rolling 100"));
    EXPECT_TRUE(shouldPost("rolling 102", "rolling 100"));
    EXPECT_TRUE(shouldPost("rolling 100", "rolling junk"));
    EXPECT_TRUE(shouldPost("paused 5", "rolling 100"));
    EXPECT_TRUE(shouldPost("paused 6", "paused 5"));
}

TEST(BeaconBroadcaster, PostsOnlyWhatShouldGoOutAndRetriesAfterAFailedPost)
{
    std::vector<std::string> posted;
    bool failing = false;
    BeaconBroadcaster broadcaster(SuiteApp::plim, [&](SuiteApp app, const std::string& payload) -> Status {
        EXPECT_EQ(app, SuiteApp::plim);
        if (failing)
            return fail("The bus is gone.");
        posted.push_back(payload);
        return {};
    });
    EXPECT_EQ(broadcaster.broadcast(BeaconState::rolling(1000.2)), true);
    EXPECT_EQ(broadcaster.broadcast(BeaconState::rolling(1000.6)), false); // 0.4 s apart
    EXPECT_EQ(broadcaster.broadcast(BeaconState::rolling(1002.6)), true);  // 2 s apart
    EXPECT_EQ(broadcaster.broadcast(BeaconState::idle()), true);
    EXPECT_EQ(broadcaster.broadcast(BeaconState::idle()), false);
    failing = true;
    auto refused = broadcaster.broadcast(BeaconState::paused(3));
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().sentence, "The bus is gone.");
    failing = false;
    EXPECT_EQ(broadcaster.broadcast(BeaconState::paused(3)), true);
    EXPECT_EQ(posted, (std::vector<std::string>{"rolling 1000", "rolling 1002", "idle", "paused 3"}));
    EXPECT_EQ(broadcaster.lastPayload(), "paused 3");
}

TEST(BeaconBroadcaster, RacingThreadsPostAStateOnce)
{
    std::atomic<int> posts = 0;
    BeaconBroadcaster broadcaster(SuiteApp::plim, [&](SuiteApp, const std::string&) -> Status {
        ++posts;
        return {};
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i)
                (void)broadcaster.broadcast(BeaconState::paused(7));
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(posts.load(), 1);
}

TEST(BeaconLivenessWatchdog, ChecksEveryIntervalAndReportsAGoneSenderOnce)
{
    ManualClock clock(500);
    bool running = true;
    int checks = 0, gone = 0;
    BeaconLivenessWatchdog watchdog(SuiteApp::tovan, 2.0, [&] { ++checks; return running; }, [&] { ++gone; }, clock);

    watchdog.tick();
    EXPECT_EQ(checks, 0);
    clock.advance(1.9);
    watchdog.tick();
    EXPECT_EQ(checks, 0);
    clock.advance(0.1);
    watchdog.tick();
    EXPECT_EQ(checks, 1);
    watchdog.tick();
    EXPECT_EQ(checks, 1);

    running = false;
    clock.advance(2);
    watchdog.tick();
    EXPECT_EQ(gone, 1);
    EXPECT_TRUE(watchdog.senderGone());
    clock.advance(10);
    watchdog.tick();
    watchdog.checkNow();
    EXPECT_EQ(checks, 2);
    EXPECT_EQ(gone, 1);
}

TEST(BeaconLivenessWatchdog, ItsOwnTimerFollowsTheClockAndStopsAfterTheSenderIsGone)
{
    ManualClock clock(0);
    std::atomic<bool> running = true;
    std::atomic<int> checks = 0;
    std::mutex lock;
    std::condition_variable cv;
    int gone = 0;
    BeaconLivenessWatchdog watchdog(
        SuiteApp::sorvel, 0.02, [&] { ++checks; return running.load(); },
        [&] {
            std::lock_guard guard(lock);
            ++gone;
            cv.notify_all();
        },
        clock);
    watchdog.start();
    EXPECT_TRUE(watchdog.isActive());
    running = false;
    clock.advance(1);
    {
        std::unique_lock guard(lock);
        ASSERT_TRUE(cv.wait_for(guard, std::chrono::seconds(20), [&] { return gone > 0; }));
    }
    EXPECT_FALSE(watchdog.isActive());
    clock.advance(1);
    watchdog.stop();
    EXPECT_EQ(gone, 1);
    EXPECT_EQ(checks.load(), 1);

    // The callback may stop its own watchdog from the watchdog's thread.
    std::atomic<bool> selfStopped = false;
    std::unique_ptr<BeaconLivenessWatchdog> self;
    self = std::make_unique<BeaconLivenessWatchdog>(
        SuiteApp::plim, 0.01, [] { return false; },
        [&] {
            self->stop();
            std::lock_guard guard(lock);
            selfStopped = true;
            cv.notify_all();
        },
        clock);
    self->start();
    clock.advance(1);
    {
        std::unique_lock guard(lock);
        ASSERT_TRUE(cv.wait_for(guard, std::chrono::seconds(20), [&] { return selfStopped.load(); }));
    }
    self.reset();
}
