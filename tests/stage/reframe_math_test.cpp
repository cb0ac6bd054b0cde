#include "stage/reframe_math.h"

#include <gtest/gtest.h>

#include <cmath>

namespace plim {
namespace {

constexpr double tolerance = 1e-9;

TEST(ReframeMathBubble, SquareNearTheBottomCentre)
{
    Rect bubble = ReframeMath::bubbleRect({1080, 1920});
    EXPECT_NEAR(bubble.width, 280.8, tolerance);
    EXPECT_NEAR(bubble.height, 280.8, tolerance);
    EXPECT_NEAR(bubble.x, 399.6, tolerance);
    EXPECT_NEAR(bubble.y, 54, tolerance);

    Rect small = ReframeMath::bubbleRect({720, 1280});
    EXPECT_NEAR(small.width, 187.2, tolerance);
    EXPECT_NEAR(small.midX(), 360, tolerance);
    EXPECT_NEAR(small.y, 36, tolerance);

    for (Size size : {Size{0, 1920}, Size{1080, 0}, Size{-1, 5}, Size{std::nan(""), 1920}, Size{1080, HUGE_VAL}})
        EXPECT_EQ(ReframeMath::bubbleRect(size), Rect{});
}

TEST(ReframeMathStack, InsetsStackAboveTheBubble)
{
    // 1080 × 1920 with the bubble's top at 54 + 280.8: k = 1.18125, base = 363.15.
    const Size size{1080, 1920};
    const double top = ReframeMath::bubbleRect(size).maxY();
    auto withKeys = ReframeMath::bottomStack(size, top, true);
    EXPECT_NEAR(withKeys.keycapInset, 287.55, 1e-6);
    EXPECT_NEAR(withKeys.captionInset, 287.55, 1e-6);
    auto withoutKeys = ReframeMath::bottomStack(size, top, false);
    EXPECT_NEAR(withoutKeys.keycapInset, 287.55, 1e-6);
    EXPECT_NEAR(withoutKeys.captionInset, 223.7625, 1e-6);
}

TEST(ReframeMathStack, NeverAboveTheMiddle)
{
    const Size size{1080, 1920};
    const double k = 1080.0 / 1280 * 1.4;
    auto high = ReframeMath::bottomStack(size, 1500, true);
    EXPECT_NEAR(high.keycapInset, 960 - 64 * k, 1e-6);
    EXPECT_NEAR(high.captionInset, 960 - 118 * k, 1e-6);
    // A very short picture has no room above the bubble: insets bottom out at zero.
    auto flat = ReframeMath::bottomStack({1080, 100}, 300, false);
    EXPECT_EQ(flat, (ReframeMath::BottomStack{0, 0}));
    // A low bubble top gives no negative inset.
    auto low = ReframeMath::bottomStack(size, 1, false);
    EXPECT_EQ(low.captionInset, 0);
    EXPECT_NEAR(low.keycapInset, 0, tolerance);
}

TEST(ReframeMathStack, NothingWithoutABubbleOrSize)
{
    const ReframeMath::BottomStack zero{0, 0};
    EXPECT_EQ(ReframeMath::bottomStack({1080, 1920}, std::nullopt, true), zero);
    EXPECT_EQ(ReframeMath::bottomStack({1080, 1920}, 0.0, true), zero);
    EXPECT_EQ(ReframeMath::bottomStack({1080, 1920}, -20.0, false), zero);
    EXPECT_EQ(ReframeMath::bottomStack({1080, 1920}, std::nan(""), false), zero);
    EXPECT_EQ(ReframeMath::bottomStack({0, 1920}, 300.0, true), zero);
    EXPECT_EQ(ReframeMath::bottomStack({1080, -1}, 300.0, true), zero);
}

} // namespace
} // namespace plim
