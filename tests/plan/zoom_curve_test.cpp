#include "plan/zoom_curve.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

using namespace plim;

namespace {

ZoomBlock block(double start, double end, double scale, double x, double y, std::optional<std::string> style = {})
{
    ZoomBlock b;
    b.id = "5A0F4C1E-2B7D-4E83-9C61-0D2E3F4A5B6C";
    b.start = start;
    b.end = end;
    b.scale = scale;
    b.centerX = x;
    b.centerY = y;
    b.style = std::move(style);
    return b;
}

double distance(const ZoomState& a, const ZoomState& b)
{
    return std::max({std::abs(a.scale - b.scale), std::abs(a.centerX - b.centerX), std::abs(a.centerY - b.centerY)});
}

// Walks the curve in tiny steps and returns the largest change between neighbours.
double largestStep(const ZoomCurve& curve, double from, double to, double dt)
{
    double worst = 0;
    ZoomState previous = curve.state(from);
    for (double t = from + dt; t <= to; t += dt) {
        ZoomState now = curve.state(t);
        worst = std::max(worst, distance(previous, now));
        previous = now;
    }
    return worst;
}

// Largest change across an instant, approached from both sides.
double gapAcross(const ZoomCurve& curve, double t)
{
    return distance(curve.state(t - 1e-9), curve.state(t + 1e-9));
}

} // namespace

TEST(ZoomCurve, FullPictureOutsideBlocksAndTheBlockHeldInside)
{
    ZoomCurve curve({block(2, 6, 2.4, 0.25, 0.75)}, ZoomStyle::smooth);
    EXPECT_EQ(curve.state(0), ZoomState::identity());
    EXPECT_EQ(curve.state(2), ZoomState::identity());
    EXPECT_EQ(curve.state(6), ZoomState::identity());
    EXPECT_EQ(curve.state(9), ZoomState::identity());
    EXPECT_EQ(curve.state(std::nan("")), ZoomState::identity());
    for (double t = 2.5; t <= 5.5; t += 0.25) {
        ZoomState s = curve.state(t);
        EXPECT_NEAR(s.scale, 2.4, 1e-12) << t;
        EXPECT_NEAR(s.centerX, 0.25, 1e-12);
        EXPECT_NEAR(s.centerY, 0.75, 1e-12);
    }
    // Halfway through the lead-in the picture is partly magnified, toward the centre.
    ZoomState half = curve.state(2.25);
    EXPECT_GT(half.scale, 1.2);
    EXPECT_LT(half.scale, 2.2);
    EXPECT_LT(half.centerX, 0.5);
    EXPECT_GT(half.centerX, 0.25);
}

TEST(ZoomCurve, LeadInAndLeadOutNeverJumpInAnyStyle)
{
    for (ZoomStyle style : allZoomStyles) {
        ZoomCurve curve({block(1, 4, 2.4, 0.1, 0.9), block(7, 7.3, 1.8, 0.8, 0.2)}, style);
        ZoomCurve::Timing timing = ZoomCurve::timing(style);
        // Sampled every 0.1 ms the curve moves at most a few hundredths: no step.
        EXPECT_LT(largestStep(curve, 0, 9, 1e-4), 0.03) << zoomStyleText(style);
        for (double t : {1.0, 1.0 + timing.leadIn, 4.0 - timing.leadOut, 4.0, 7.0, 7.15, 7.3})
            EXPECT_LT(gapAcross(curve, t), 1e-5) << zoomStyleText(style) << " at " << t;
    }
}

TEST(ZoomCurve, NearlyTouchingBlocksHandOverWithoutGoingBackToTheFullPicture)
{
    for (ZoomStyle style : allZoomStyles) {
        ZoomCurve curve({block(1, 4, 2.0, 0.2, 0.2), block(4.4, 8, 1.8, 0.7, 0.6)}, style);
        double lowest = 10;
        for (double t = 3.0; t <= 5.5; t += 0.001)
            lowest = std::min(lowest, curve.state(t).scale);
        // Overshooting styles may swing a little past the second block's 1.8; none dips toward 1.
        bool overshoots = style == ZoomStyle::bouncy || style == ZoomStyle::spring;
        EXPECT_GT(lowest, overshoots ? 1.7 : 1.8 - 1e-9) << zoomStyleText(style);
        EXPECT_LT(largestStep(curve, 3.0, 5.5, 1e-4), 0.03) << zoomStyleText(style);
        for (double t : {4.0, 4.2, 4.4})
            EXPECT_LT(gapAcross(curve, t), 1e-5) << zoomStyleText(style) << " at " << t;
        // Through the gap the first block is held; the second one is reached.
        EXPECT_NEAR(curve.state(4.2).scale, 2.0, 1e-12);
        EXPECT_NEAR(curve.state(6).centerX, 0.7, 1e-12);
    }
    // Far apart, the picture returns to full size between them.
    ZoomCurve apart({block(1, 4, 2.0, 0.2, 0.2), block(6, 9, 1.8, 0.7, 0.6)}, ZoomStyle::smooth);
    EXPECT_EQ(apart.state(5), ZoomState::identity());
}

TEST(ZoomCurve, StylesCanBeToldApart)
{
    // Each pair of styles differs visibly somewhere in the first second of a zoom.
    auto sample = [](ZoomStyle style) {
        ZoomCurve curve({block(1, 5, 2.0, 0.5, 0.5)}, style);
        std::vector<double> scales;
        for (double t = 1.0; t <= 2.0; t += 0.01)
            scales.push_back(curve.state(t).scale);
        return scales;
    };
    for (ZoomStyle a : allZoomStyles) {
        for (ZoomStyle b : allZoomStyles) {
            if (a >= b) continue;
            std::vector<double> sa = sample(a), sb = sample(b);
            double most = 0;
            for (size_t i = 0; i < sa.size(); ++i)
                most = std::max(most, std::abs(sa[i] - sb[i]));
            EXPECT_GT(most, 0.05) << zoomStyleText(a) << " and " << zoomStyleText(b);
        }
    }
    // Overshooting styles pass their target on the way in; the calm ones never do.
    auto peak = [](ZoomStyle style) {
        ZoomCurve curve({block(1, 5, 2.0, 0.5, 0.5)}, style);
        double top = 0;
        for (double t = 1.0; t <= 5.0; t += 0.001)
            top = std::max(top, curve.state(t).scale);
        return top;
    };
    EXPECT_GT(peak(ZoomStyle::bouncy), 2.05);
    EXPECT_GT(peak(ZoomStyle::spring), 2.05);
    EXPECT_NEAR(peak(ZoomStyle::smooth), 2.0, 1e-9);
    EXPECT_NEAR(peak(ZoomStyle::glide), 2.0, 1e-9);
}

TEST(ZoomCurve, BlockStyleOverridesTheCurveStyle)
{
    ZoomCurve overridden({block(1, 5, 2.0, 0.5, 0.5, "cut")}, ZoomStyle::drift);
    ZoomCurve cut({block(1, 5, 2.0, 0.5, 0.5)}, ZoomStyle::cut);
    ZoomCurve unknown({block(1, 5, 2.0, 0.5, 0.5, "wobbly")}, ZoomStyle::drift);
    ZoomCurve drift({block(1, 5, 2.0, 0.5, 0.5)}, ZoomStyle::drift);
    for (double t = 0.9; t < 5.2; t += 0.013) {
        EXPECT_EQ(overridden.state(t), cut.state(t));
        EXPECT_EQ(unknown.state(t), drift.state(t));
    }
    // A cut is all the way in a frame after the block starts; a drift is still moving.
    EXPECT_NEAR(overridden.state(1.02).scale, 2.0, 1e-12);
    EXPECT_LT(drift.state(1.02).scale, 1.1);
}

TEST(ZoomCurve, ShortBlocksStillReachTheirZoomAndStayContinuous)
{
    ZoomCurve curve({block(2, 2.3, 2.4, 0.3, 0.3)}, ZoomStyle::glide);
    EXPECT_NEAR(curve.state(2.15).scale, 2.4, 1e-9);
    EXPECT_LT(largestStep(curve, 1.9, 2.4, 1e-5), 0.01);
    EXPECT_EQ(curve.state(2.3), ZoomState::identity());
}

TEST(ZoomCurve, UnusableBlocksAreIgnoredAndOverlapsHandOver)
{
    double nan = std::nan("");
    ZoomCurve curve({block(nan, 3, 2, 0.5, 0.5), block(5, 4, 2, 0.5, 0.5), block(1, 2, 0, 0.5, 0.5),
                        block(1, 2, nan, 0.5, 0.5), block(10, 14, 2.0, nan, 7.0), block(12, 16, 1.5, 0.1, 0.1)},
        ZoomStyle::smooth);
    EXPECT_EQ(curve.blocks().size(), 6u);
    EXPECT_EQ(curve.state(1.5), ZoomState::identity());
    EXPECT_EQ(curve.state(4.5), ZoomState::identity());
    ZoomState held = curve.state(11);
    EXPECT_DOUBLE_EQ(held.scale, 2.0);
    EXPECT_DOUBLE_EQ(held.centerX, 0.5);
    EXPECT_DOUBLE_EQ(held.centerY, 1.0);
    // The later block takes over where it starts, without a jump.
    EXPECT_NEAR(curve.state(13).scale, 1.5, 1e-9);
    EXPECT_LT(largestStep(curve, 9, 17, 1e-4), 0.03);
}

TEST(ZoomCurve, ManyBlocksInAnyOrderGiveTheSameCurve)
{
    std::vector<ZoomBlock> blocks;
    for (int i = 0; i < 500; ++i)
        blocks.push_back(block(i * 4.0, i * 4.0 + 2.5, 1.4 + (i % 3) * 0.5, (i % 7) / 7.0, (i % 5) / 5.0));
    std::vector<ZoomBlock> reversed(blocks.rbegin(), blocks.rend());
    ZoomCurve forward(blocks, ZoomStyle::snappy), backward(reversed, ZoomStyle::snappy);
    for (double t = 0; t < 2000; t += 0.37)
        EXPECT_EQ(forward.state(t), backward.state(t));
    EXPECT_NEAR(forward.state(4 * 321 + 1.2).scale, 1.4 + (321 % 3) * 0.5, 1e-12);
}
