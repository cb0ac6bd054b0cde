#include "stage/cursor_smoother.h"
#include "stage/cursor_spring.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace plim {
namespace {

CursorSpring restingAt(double x, double y) { return CursorSpring{x, y, 0, 0, 0}; }

TEST(CursorSpringTest, ALongGapSimulatesOnlyTwoSeconds)
{
    CursorSpring spring = restingAt(0, 0);
    spring.advance(1, 1, 10.0);

    CursorSpring manual = restingAt(0, 0);
    for (int i = 0; i < 240; ++i) {
        CursorSpring::tick(manual.x, manual.vx, 1);
        CursorSpring::tick(manual.y, manual.vy, 1);
    }
    EXPECT_EQ(spring.x, manual.x);
    EXPECT_EQ(spring.vy, manual.vy);
    EXPECT_GE(spring.carry, 0);
    EXPECT_LT(spring.carry, CursorSpring::step);
    // One more tick would have moved it: the count is exactly 240.
    CursorSpring::tick(manual.x, manual.vx, 1);
    EXPECT_NE(spring.x, manual.x);
}

TEST(CursorSpringTest, MovesTheSameWhateverTheFrameRate)
{
    // One second toward the same target at 30, 60, 120 and 144 frames a second.
    CursorSpring reference = restingAt(0.1, 0.9);
    for (int i = 0; i < 120; ++i)
        reference.advance(0.7, 0.2, 1.0 / 120);
    for (int fps : {30, 60, 144}) {
        CursorSpring spring = restingAt(0.1, 0.9);
        for (int i = 0; i < fps; ++i)
            spring.advance(0.7, 0.2, 1.0 / fps);
        EXPECT_EQ(spring.x, reference.x) << fps;
        EXPECT_EQ(spring.y, reference.y) << fps;
    }
}

TEST(CursorSpringTest, UnusableTargetsOrTimesChangeNothing)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    CursorSpring spring{0.3, 0.4, 0.5, -0.2, 0.004};
    const CursorSpring before = spring;
    for (auto [x, y, dt] : {std::tuple{nan, 0.5, 0.1}, {0.5, inf, 0.1}, {0.5, 0.5, nan}, {0.5, 0.5, -0.1},
             std::tuple{0.5, 0.5, inf}}) {
        CursorSpring::Point p = spring.advance(x, y, dt);
        EXPECT_EQ(spring, before);
        EXPECT_EQ(p, (CursorSpring::Point{0.3, 0.4}));
    }
    // Less than a tick is carried, not simulated.
    spring.advance(0.9, 0.9, 0.002);
    EXPECT_EQ(spring.x, 0.3);
    EXPECT_NEAR(spring.carry, 0.006, 1e-12);
}

TEST(CursorSpringTest, LiveSpringFollowsTheRecordedSmootherExactly)
{
    // The same pointer path, recorded and smoothed, or chased live one tick at a time.
    std::vector<CursorSmoother::Sample> samples;
    for (int i = 0; i < 60; ++i)
        samples.push_back({i / 30.0, 0.5 + 0.4 * std::sin(i * 0.3), i < 30 ? 0.2 : 0.8});
    CursorSmoother smoother = CursorSmoother::smoothing(samples);

    CursorSpring live = restingAt(samples[0].x, samples[0].y);
    size_t held = 0;
    for (size_t k = 0; k < smoother.size(); ++k) {
        double tick = smoother.start + static_cast<double>(k) * smoother.step;
        while (held + 1 < samples.size() && samples[held + 1].t <= tick)
            ++held;
        // A tick is due at each frame of a 120 fps session.
        CursorSpring::Point p = live.advance(samples[held].x, samples[held].y, 1.0 / 120);
        ASSERT_EQ(p.x, smoother.xs[k]) << k;
        ASSERT_EQ(p.y, smoother.ys[k]) << k;
    }
}

} // namespace
} // namespace plim
