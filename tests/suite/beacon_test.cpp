#include "suite/beacon.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <latch>
#include <limits>
#include <thread>

using namespace plim;

TEST(Beacon, WireNamesAndPayloadsThatRoundTripInWholeSeconds)
{
    EXPECT_EQ(beaconName(SuiteApp::plim), "app.plim.recording");
    EXPECT_EQ(controlName(SuiteApp::tovan), "app.tovan.control");
    EXPECT_EQ(filedName(SuiteApp::sorvel), "app.sorvel.filed");
    using Limits = std::numeric_limits<int64_t>;
    for (auto [seconds, whole] : std::vector<std::pair<double, int64_t>>{{12.9, 12}, {-12.9, -12}, {std::nan(""), 0},
             {1e300, Limits::max()}, {HUGE_VAL, Limits::max()}, {-1e300, Limits::min()},
             {9223372036854775807.0, Limits::max()}})
        EXPECT_EQ(wholeSeconds(seconds), whole) << seconds;

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

TEST(BeaconBroadcaster, PostsOnlyWhatShouldGoOutAndRetriesAfterAFailedPost)
{
    EXPECT_FALSE(shouldPost("rolling 101", "rolling 100")); // an anchor moved by a second at most stays silent
    EXPECT_TRUE(shouldPost("rolling 100", "rolling junk"));
    EXPECT_TRUE(shouldPost("paused 6", "paused 5"));

    std::vector<std::string> posted;
    bool failing = false;
    BeaconBroadcaster broadcaster(SuiteApp::tovan, [&](SuiteApp app, const std::string& payload) -> Status {
        EXPECT_EQ(app, SuiteApp::tovan);
        if (failing)
            return fail("The bus is gone.");
        posted.push_back(payload);
        return {};
    });
    EXPECT_EQ(broadcaster.broadcast(BeaconState::rolling(1000.2)), true);
    EXPECT_EQ(broadcaster.broadcast(BeaconState::rolling(1000.6)), false);
    EXPECT_EQ(broadcaster.broadcast(BeaconState::rolling(1002.6)), true);
    EXPECT_EQ(broadcaster.broadcast(BeaconState::idle()), true);
    EXPECT_EQ(broadcaster.broadcast(BeaconState::idle()), false);
    failing = true;
    auto refused = broadcaster.broadcast(BeaconState::paused(3));
    EXPECT_EQ(refused ? "posted" : refused.error().sentence, "The bus is gone.");
    failing = false;
    EXPECT_EQ(broadcaster.broadcast(BeaconState::paused(3)), true);
    EXPECT_EQ(posted, (std::vector<std::string>{"rolling 1000", "rolling 1002", "idle", "paused 3"}));

    // Threads racing through a slow post still post one state once.
    std::atomic<int> posts = 0;
    BeaconBroadcaster shared(SuiteApp::plim, [&](SuiteApp, const std::string&) -> Status {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return ++posts, Status{};
    });
    std::latch start(8);
    std::vector<std::jthread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&] { start.arrive_and_wait(), (void)shared.broadcast(BeaconState::paused(7)); });
    threads.clear();
    EXPECT_EQ(posts.load(), 1);
}

TEST(BeaconLivenessWatchdog, ChecksEveryIntervalAndReportsAGoneSenderOnce)
{
    ManualClock clock(500);
    bool running = true;
    int checks = 0, gone = 0;
    BeaconLivenessWatchdog watchdog(SuiteApp::tovan, 2.0, [&] { return ++checks, running; }, [&] { ++gone; }, clock);
    for (auto [advance, expectedChecks] : std::vector<std::pair<double, int>>{{0, 0}, {1.9, 0}, {0.1, 1}, {0, 1}}) {
        clock.advance(advance);
        watchdog.tick();
        EXPECT_EQ(checks, expectedChecks) << clock.uptime();
    }
    running = false;
    clock.advance(2);
    watchdog.tick();
    EXPECT_EQ(gone, 1);
    clock.advance(10);
    watchdog.tick();
    watchdog.checkNow();
    EXPECT_EQ(checks, 2); // no check once the sender is gone
    EXPECT_EQ(gone, 1);
}
