// The live run's rules at their edges: the degrade ladder's steps and notes, the resting
// pointer's fade, the input bus's cap, and the sinks' health sentences.

#include "live/live_rules.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace plim {
namespace {

constexpr double half = 0.5;

TEST(DegradeLadderTest, FallsOnTwoBadSamplesAndClimbsBackOneRungPerThirtyCleanSeconds)
{
    DegradeLadder ladder;
    // Nine overruns never step down but they do restart the clean time.
    EXPECT_EQ(ladder.advance(9, half), DegradeLadder::Step{});
    EXPECT_EQ(ladder.quality, LiveQuality::full);
    DegradeLadder::Step down = ladder.advance(10, half);
    EXPECT_EQ(down.change, LiveQuality::halfRate);
    EXPECT_EQ(down.note, "The GPU is behind, so the stream stepped to 30fps. It steps back up on its own once things calm down.");

    for (int i = 0; i < 40; ++i)
        ladder.advance(0, half);
    EXPECT_EQ(ladder.cleanFor, 20);
    ladder.advance(3, half);
    EXPECT_EQ(ladder.cleanFor, 0);
    EXPECT_EQ(ladder.quality, LiveQuality::halfRate);
    // 59 clean samples (29.5 s) keep it at 30 fps; the 60th steps up.
    for (int i = 0; i < 59; ++i)
        ASSERT_FALSE(ladder.advance(0, half).change) << i;
    DegradeLadder::Step up = ladder.advance(0, half);
    EXPECT_EQ(up.change, LiveQuality::full);
    EXPECT_EQ(up.note, "Back to the full 60fps.");
    EXPECT_EQ(ladder.cleanFor, 0);

    ladder.advance(12, half);
    DegradeLadder::Step bottom = ladder.advance(10, half);
    EXPECT_EQ(bottom.change, LiveQuality::minimalEffects);
    EXPECT_EQ(bottom.note, "Still behind at 30fps, so motion blur and click effects are off for now. The picture itself is untouched.");
    EXPECT_EQ(ladder.advance(50, half), DegradeLadder::Step{});
    EXPECT_EQ(ladder.quality, LiveQuality::minimalEffects);

    // A negative or broken interval adds no clean time.
    ladder.advance(0, -5);
    ladder.advance(0, std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(ladder.cleanFor, 0);
    // From the bottom the first stretch only brings the effects back, still at 30 fps.
    for (int i = 0; i < 59; ++i)
        ladder.advance(0, half);
    DegradeLadder::Step back = ladder.advance(0, half);
    EXPECT_EQ(back.change, LiveQuality::halfRate);
    EXPECT_EQ(back.note, "The GPU caught up: motion blur and click effects are back.");
    for (int i = 0; i < 59; ++i)
        ladder.advance(0, half);
    EXPECT_EQ(ladder.advance(0, half).change, LiveQuality::full);
    EXPECT_EQ(liveRate(LiveQuality::full), 60);
    EXPECT_EQ(liveRate(LiveQuality::halfRate), 30);
    EXPECT_EQ(liveRate(LiveQuality::minimalEffects), 30);
}

TEST(DegradeLadderTest, NotesWithoutExtrasLeaveTheSwitchedOffPartsUnnamed)
{
    DegradeLadder ladder;
    ladder.extras.reset();
    ladder.advance(10, half);
    EXPECT_EQ(ladder.advance(10, half).note, "Still behind at 30fps. The picture itself is untouched.");
    for (int i = 0; i < 59; ++i)
        ladder.advance(0, half);
    EXPECT_EQ(ladder.advance(0, half).note, "The GPU caught up.");
}

TEST(IdleFadeTest, ARestingPointerFadesOutAfterItsGraceAndAMoveBringsItBack)
{
    IdleFade fade;
    EXPECT_EQ(fade.advance(0.5, 0.5, 0.1), 1); // first call: just remembered
    // Moves of 0.004 count as resting: 1.6 s still shows it fully, the fade then runs 0.7 s.
    double x = 0.5;
    for (int i = 0; i < 16; ++i) {
        x += i % 2 ? 0.004 : -0.004;
        ASSERT_NEAR(fade.advance(x, 0.5, 0.1), 1, 1e-9) << i;
    }
    EXPECT_NEAR(fade.stillFor, 1.6, 1e-9);
    EXPECT_NEAR(fade.advance(x, 0.5, 0.35), 0.5, 1e-9);
    EXPECT_NEAR(fade.advance(x, 0.5, 0.35), 0, 1e-9); // 2.3 s still: hidden
    EXPECT_EQ(fade.advance(x, 0.5, 5), 0);
    // A move past the tolerance shows it at once.
    EXPECT_EQ(fade.advance(x + 0.006, 0.5, 0.1), 1);
    EXPECT_EQ(fade.stillFor, 0);
    // A broken interval starts over without fading.
    fade.advance(x + 0.006, 0.5, 3);
    EXPECT_EQ(fade.advance(x + 0.006, 0.5, std::numeric_limits<double>::infinity()), 1);
    EXPECT_EQ(fade.stillFor, 0);
}

TEST(LiveInputBusTest, KeepsThirtyTwoClicksInOrderAndIgnoresBrokenInput)
{
    LiveInputBus bus;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    bus.postClick(nan, 0.5);
    bus.postClick(0.5, std::numeric_limits<double>::infinity());
    for (int i = 0; i < 33; ++i)
        bus.postClick(i / 100.0, 0.25);
    EXPECT_EQ(bus.waitingClicks(), 32u);
    auto clicks = bus.takeClicks();
    ASSERT_EQ(clicks.size(), 32u);
    EXPECT_EQ(clicks.front(), (LiveInputBus::Click{0, 0.25}));
    EXPECT_EQ(clicks.back(), (LiveInputBus::Click{0.31, 0.25})); // the 33rd was dropped
    EXPECT_TRUE(bus.takeClicks().empty());
    bus.postClick(0.9, 0.9); // room again once taken
    EXPECT_EQ(bus.waitingClicks(), 1u);

    bus.postPointer(std::pair{0.2, 0.3});
    EXPECT_EQ(bus.pointer(), (std::pair{0.2, 0.3}));
    bus.postPointer(std::pair{nan, 0.3});
    EXPECT_FALSE(bus.pointer());
}

TEST(LiveHealthTest, EachSinkHasItsSentence)
{
    EXPECT_EQ(healthLine({{"Plim Camera", {LiveSinkHealth::Idle{}}}, {"Monitor", {LiveSinkHealth::Opening{}}},
                  {"out.mkv", {LiveSinkHealth::Running{0}}}, {"Other", {LiveSinkHealth::Running{3}}},
                  {"Slow", {LiveSinkHealth::Degraded{"It is behind."}}},
                  {"Gone", {LiveSinkHealth::Failed{"It stopped."}}}}),
        "Plim Camera: Not running. Monitor: Not running. out.mkv: Live. Other: 3 dropped. Slow: It is behind. Gone: "
        "It stopped.");
    EXPECT_EQ(healthLine({}), "");
}

} // namespace
} // namespace plim
