#include "capture/capture.h"
#include "stage/cursor_smoother.h"
#include "stage/cursor_spring.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace plim {
namespace {

using Point = CursorSmoother::Point;
using Sample = CursorSmoother::Sample;

TEST(CursorSmootherTest, AJumpGlidesToItsTargetWithoutOvershoot)
{
    CursorSmoother smoother = CursorSmoother::smoothing({{0, 0.1, 0.5}, {1.0, 0.9, 0.5}, {3.0, 0.9, 0.5}});
    for (size_t k = 1; k < smoother.size(); ++k) {
        ASSERT_LE(smoother.xs[k], 0.9) << k;
        ASSERT_GE(smoother.xs[k], smoother.xs[k - 1]) << k;
    }
    const double jump = 0.8;
    EXPECT_EQ(smoother.position(1.0 - smoother.step).x, 0.1); // held, not interpolated, until its stamp
    EXPECT_NEAR(smoother.position(1.0).x, 0.1 + jump * 196 / (120.0 * 120.0), 1e-12);
    EXPECT_GT(0.9 - smoother.position(1.2).x, 0.15 * jump);
    EXPECT_LT(0.9 - smoother.position(1.47).x, 0.015 * jump); // about 1% after ~0.47 s
    EXPECT_LT(0.9 - smoother.position(1.6).x, 0.004 * jump);
}

TEST(CursorSmootherTest, TicksRunFromTheFirstSampleToOneTickPastTheLast)
{
    CursorSmoother smoother = CursorSmoother::smoothing({{0.5, 0.2, 0.2}, {1.5, 0.2, 0.2}});
    EXPECT_EQ(smoother.start, 0.5);
    EXPECT_EQ(smoother.size(), 122u); // 0.5 .. 1.5 + 1/120

    // A negative first stamp starts at 0, where the spring holds toward that sample.
    CursorSmoother early = CursorSmoother::smoothing({{0.25, 0.6, 0.6}, {-0.5, 0.4, 0.4}});
    EXPECT_EQ(early.start, 0);
    EXPECT_EQ(early.size(), 32u);
    EXPECT_EQ(early.xs[0], 0.4);
    EXPECT_EQ(CursorSmoother::smoothing({{0, 0, 0}, {100, 1, 1}}, 1.0).size(), 122u); // until 1 s
    EXPECT_TRUE(CursorSmoother::smoothing({{NAN, 0.5, 0.5}, {1, 0.5, INFINITY}}).empty());
}

TEST(CursorSmootherTest, ReadsAreHeldAtBothEndsAndInterpolatedBetween)
{
    CursorSmoother smoother;
    smoother.start = 2.0;
    smoother.xs = {0.1, 0.3, 0.7};
    smoother.ys = {0.9, 0.8, 0.6};
    const double h = smoother.step;
    EXPECT_EQ(smoother.position(-50), (Point{0.1, 0.9}));
    EXPECT_EQ(smoother.position(2.0 + 99 * h), (Point{0.7, 0.6}));
    EXPECT_NEAR(smoother.position(2.0 + 1.5 * h).x, 0.5, 1e-9);
    EXPECT_NEAR(smoother.position(2.0 + 1.5 * h).y, 0.7, 1e-9);
    EXPECT_EQ(smoother.position(NAN), (Point{0.1, 0.9}));
    smoother.xs.resize(1);
    EXPECT_EQ(smoother.position(2.0 + 2 * h), (Point{0.1, 0.9}));
    EXPECT_EQ(CursorSmoother().position(1), (Point{0.5, 0.5}));
}

// Where a sample lands in its region is TrackPlacement's (cursor_track_test); the smoother
// takes its unit points in seconds and leaves out what is not finite.
TEST(CursorSmootherTest, TrackSamplesBecomeUnitPointsInSeconds)
{
    CursorTrack track{.displayWidth = 1000, .displayHeight = 500};
    track.samples = {{0, 250, 250, 0}, {2500, 750, 125, 0}, {4000, NAN, 5, 0}};
    EXPECT_EQ(CursorSmoother::samplesOf(track), (std::vector<Sample>{{0.0, 0.25, 0.5}, {2.5, 0.75, 0.25}}));
    CursorSmoother smoother(track);
    EXPECT_EQ(smoother.size(), 302u);
    EXPECT_DOUBLE_EQ(smoother.position(0).x, 0.25);
    EXPECT_TRUE(CursorSmoother(CursorTrack::deviceTrack(1170, 2532)).empty());
}

TEST(CursorSpringTest, AdvancesInWholeTicksWhateverTheFrameRate)
{
    // Ten seconds simulate at most two: 240 ticks.
    CursorSpring spring{0, 0};
    spring.advance(1, 1, 10.0);
    CursorSpring manual{0, 0};
    for (int i = 0; i < 240; ++i) {
        CursorSpring::tick(manual.x, manual.vx, 1);
        CursorSpring::tick(manual.y, manual.vy, 1);
    }
    EXPECT_EQ(spring.position(), manual.position());
    EXPECT_TRUE(spring.carry >= 0 && spring.carry < CursorSpring::step);

    CursorSpring reference{0.1, 0.9};
    for (int i = 0; i < 120; ++i)
        reference.advance(0.7, 0.2, 1.0 / 120);
    for (int fps : {30, 60, 144}) {
        CursorSpring other{0.1, 0.9};
        for (int i = 0; i < fps; ++i)
            other.advance(0.7, 0.2, 1.0 / fps);
        EXPECT_EQ(other.position(), reference.position()) << fps;
    }

    // Less than a tick is carried, not simulated; unusable input changes nothing.
    const double nan = std::numeric_limits<double>::quiet_NaN();
    CursorSpring held{0.3, 0.4, 0.5, -0.2, 0.004};
    held.advance(0.9, 0.9, 0.002);
    EXPECT_EQ(held.x, 0.3);
    EXPECT_NEAR(held.carry, 0.006, 1e-12);
    const CursorSpring before = held;
    for (auto [x, y, dt] : {std::tuple{nan, 0.5, 0.1}, {0.5, INFINITY, 0.1}, {0.5, 0.5, nan}, {0.5, 0.5, -0.1}})
        EXPECT_EQ(held.advance(x, y, dt), before.position());
    EXPECT_EQ(held, before);
}

TEST(CursorSpringTest, LiveSpringFollowsTheRecordedSmootherExactly)
{
    std::vector<CursorSmoother::Sample> samples;
    for (int i = 0; i < 60; ++i)
        samples.push_back({i / 30.0, 0.5 + 0.4 * std::sin(i * 0.3), i < 30 ? 0.2 : 0.8});
    CursorSmoother smoother = CursorSmoother::smoothing(samples);

    CursorSpring live{samples[0].x, samples[0].y};
    size_t held = 0;
    for (size_t k = 0; k < smoother.size(); ++k) {
        double tick = smoother.start + static_cast<double>(k) * smoother.step;
        while (held + 1 < samples.size() && samples[held + 1].t <= tick)
            ++held;
        ASSERT_EQ(live.advance(samples[held].x, samples[held].y, 1.0 / 120),
            (CursorSpring::Point{smoother.xs[k], smoother.ys[k]})) << k;
    }
}

} // namespace
} // namespace plim
