#include "stage/device_frame.h"

#include <gtest/gtest.h>

#include <cmath>

namespace plim {
namespace {

constexpr double tolerance = 1e-6;

TEST(DeviceFrame, PhoneOnAVerticalCanvas)
{
    // 1170 × 2532 phone picture on a 1080 × 1920 canvas with the default look: the padding
    // 56·1080/1280 = 47.25 is raised to 6% of the shorter side, 64.8.
    DeviceFrameGeometry f({1080, 1920}, {1170, 2532}, StageSpec{});
    EXPECT_EQ(f.canvas, (Size{1080, 1920}));
    EXPECT_NEAR(f.screen.x, 145.308854119562, tolerance);
    EXPECT_NEAR(f.screen.y, 105.847879171565, tolerance);
    EXPECT_NEAR(f.screen.width, 789.382291760876, tolerance);
    EXPECT_NEAR(f.screen.height, 1708.304241656869, tolerance);
    EXPECT_NEAR(f.bezel, 41.047879171566, tolerance);
    EXPECT_NEAR(f.bodyCorner, 147.614488559284, tolerance);
    EXPECT_NEAR(f.screenCorner, 106.566609387718, tolerance);
    EXPECT_NEAR(f.stroke, 7.388618250882, tolerance);
    EXPECT_NEAR(f.island.x, 413.698833318260, tolerance);
    EXPECT_NEAR(f.island.y, 1715.479334358325, tolerance);
    EXPECT_NEAR(f.island.width, 252.602333363480, tolerance);
    EXPECT_NEAR(f.island.height, 74.991317717283, tolerance);
    EXPECT_NEAR(f.islandCorner, 37.495658858642, tolerance);

    // The body is the screen grown by the bezel and, being the limiting side, spans the
    // canvas height less the padding.
    EXPECT_EQ(f.body, f.screen.outset(f.bezel, f.bezel));
    EXPECT_NEAR(f.body.minY(), 64.8, tolerance);
    EXPECT_NEAR(f.body.maxY(), 1920 - 64.8, tolerance);
}

TEST(DeviceFrame, IslandSitsBelowTheTopEdgeCentred)
{
    for (Size canvas : {Size{1080, 1920}, Size{1920, 1080}, Size{720, 720}}) {
        DeviceFrameGeometry f(canvas, {1179, 2556}, StageSpec{});
        const double w = f.screen.width;
        EXPECT_NEAR(f.island.midX(), f.screen.midX(), tolerance);
        EXPECT_NEAR(f.screen.maxY() - f.island.maxY(), 0.03 * w, tolerance);
        EXPECT_NEAR(f.island.width, 0.32 * w, tolerance);
        EXPECT_NEAR(f.island.height, 0.095 * w, tolerance);
        EXPECT_NEAR(f.islandCorner, 0.0475 * w, tolerance); // half the height, under 0.05·w
        EXPECT_NEAR(f.screen.midX(), canvas.width / 2, tolerance);
        EXPECT_NEAR(f.screen.midY(), canvas.height / 2, tolerance);
        // The screen keeps the picture's aspect.
        EXPECT_NEAR(f.screen.width / f.screen.height, 1179.0 / 2556, 1e-9);
    }
}

TEST(DeviceFrame, PaddingRules)
{
    // Without a card look the padding is held between 6% and 35% of the shorter side.
    StageSpec large;
    large.paddingPX = 2000;
    DeviceFrameGeometry held({1080, 1920}, {1170, 2532}, large);
    // The body (1.104·cw wide, ch + 0.104·cw tall) fits inside the canvas less 35%.
    const double p = 0.35 * 1080;
    EXPECT_LE(held.body.width, 1080 - 2 * p + tolerance);
    EXPECT_LE(held.body.height, 1920 - 2 * p + tolerance);
    const bool widthBound = std::abs(held.body.width - (1080 - 2 * p)) < tolerance;
    const bool heightBound = std::abs(held.body.height - (1920 - 2 * p)) < tolerance;
    EXPECT_TRUE(widthBound || heightBound);

    // With a card look the fit uses the screen alone and the padding may be zero.
    StageSpec card;
    card.card = StageSpec::CardLook{0.0, 0.02, 1.0, std::nullopt};
    DeviceFrameGeometry bare({1080, 1920}, {1080, 1920}, card);
    EXPECT_EQ(bare.screen, (Rect{0, 0, 1080, 1920}));
    card.card->padding = 0.1;
    DeviceFrameGeometry padded({1080, 1920}, {1080, 1920}, card);
    EXPECT_NEAR(padded.screen.x, 108, tolerance);
    EXPECT_NEAR(padded.screen.width, 1080 - 216, tolerance);
}

TEST(DeviceFrame, PxPaddingScalesWithCanvasWidth)
{
    StageSpec spec;
    spec.paddingPX = 200; // 200 px at 1280, between the 6% and 35% bounds at these sizes
    DeviceFrameGeometry base({1280, 1280}, {1000, 2000}, spec);
    DeviceFrameGeometry twice({2560, 2560}, {1000, 2000}, spec);
    EXPECT_NEAR(base.body.height, 1280 - 400, tolerance);
    EXPECT_NEAR(twice.body.height, 2560 - 800, tolerance);
    EXPECT_NEAR(twice.screen.width, 2 * base.screen.width, tolerance);
}

TEST(DeviceFrame, TinyAndBrokenContentNeverBreaksTheLayout)
{
    // Content is raised to at least one pixel each way: a square screen.
    for (Size content : {Size{0, 0}, Size{-3, 0.2}, Size{std::nan(""), std::nan("")}}) {
        DeviceFrameGeometry f({1080, 1920}, content, StageSpec{});
        EXPECT_NEAR(f.screen.width, f.screen.height, tolerance);
        EXPECT_GT(f.screen.width, 0);
        EXPECT_TRUE(std::isfinite(f.island.y));
    }
    // The outline never gets thinner than one pixel.
    DeviceFrameGeometry small({64, 64}, {100, 200}, StageSpec{});
    EXPECT_DOUBLE_EQ(small.stroke, 1.0);
    // An unusable canvas gives an empty frame.
    DeviceFrameGeometry none({0, 0}, {100, 200}, StageSpec{});
    EXPECT_EQ(none.screen, Rect{});
    EXPECT_EQ(none.body, Rect{});
}

} // namespace
} // namespace plim
