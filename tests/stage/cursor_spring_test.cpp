#include "stage/cursor_smoother.h"
#include "stage/cursor_spring.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace plim {
namespace {

TEST(CursorSpringTest, AdvancesInWholeTicksOfAtMostTwoSeconds)
{
    CursorSpring spring{0, 0, 0, 0, 0};
    spring.advance(1, 1, 10.0);
    CursorSpring manual{0, 0, 0, 0, 0};
    for (int i = 0; i < 240; ++i) {
        CursorSpring::tick(manual.x, manual.vx, 1);
        CursorSpring::tick(manual.y, manual.vy, 1);
    }
    EXPECT_EQ(spring.position(), manual.position());
    EXPECT_TRUE(spring.carry >= 0 && spring.carry < CursorSpring::step);

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

TEST(CursorSpringTest, MovesTheSameWhateverTheFrameRate)
{
    CursorSpring reference{0.1, 0.9};
    for (int i = 0; i < 120; ++i)
        reference.advance(0.7, 0.2, 1.0 / 120);
    for (int fps : {30, 60, 144}) {
        CursorSpring spring{0.1, 0.9};
        for (int i = 0; i < fps; ++i)
            spring.advance(0.7, 0.2, 1.0 / fps);
        EXPECT_EQ(spring.position(), reference.position()) << fps;
    }
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
        CursorSpring::Point p = live.advance(samples[held].x, samples[held].y, 1.0 / 120);
        ASSERT_EQ(p, (CursorSpring::Point{smoother.xs[k], smoother.ys[k]})) << k;
    }
}

} // namespace
} // namespace plim
