// Live moments from live input: a click ripples for the click style's life and zooms in on
// its place, the view eases back once clicks stop, the pointer glides and hides when it rests.

#include "live/live_moment_source.h"

#include <gtest/gtest.h>

namespace plim {
namespace {

constexpr double frame = 1.0 / 60;

TEST(LiveMomentSourceTest, ClicksRippleAndZoomThenTheViewSettlesBackAndARestingPointerHides)
{
    auto switches = std::make_shared<LiveSwitches>();
    auto inputs = std::make_shared<LiveInputBus>();
    LiveMomentSource source(LiveMomentSource::optionsFor({.clickStyle = ClickStyle::pulse}, true), switches, inputs);
    EXPECT_DOUBLE_EQ(source.options().clickLife, 0.7);

    // Before any pointer is known there is none to draw and the view is whole.
    StageMoment m = source.moment(0, frame);
    EXPECT_FALSE(m.cursor);
    EXPECT_EQ(m.zoom, ZoomState::identity());

    inputs->postPointer(std::pair{0.8, 0.2});
    m = source.moment(frame, frame);
    ASSERT_TRUE(m.cursor);
    EXPECT_EQ(m.cursor->x, 0.8); // the first position is taken as it is
    EXPECT_EQ(m.cursor->alpha, 1);

    // The pointer jumps: the spring glides toward it rather than teleporting.
    inputs->postPointer(std::pair{0.2, 0.2});
    m = source.moment(2 * frame, frame);
    EXPECT_GT(m.cursor->x, 0.6);
    EXPECT_EQ(m.cursor->previousX, 0.8);

    inputs->postClick(0.2, 0.2);
    double t = 3 * frame;
    m = source.moment(t, frame);
    ASSERT_EQ(m.clicks.size(), 1u);
    EXPECT_EQ(m.clicks[0], (StageMoment::Click{0.2, 0.2, 0}));
    EXPECT_EQ(m.cursor->press, 1);
    // Zoomed in near the click within a second, the centre kept inside the picture.
    for (; t < 1.2; t += frame)
        m = source.moment(t, frame);
    EXPECT_TRUE(m.clicks.empty()); // past the pulse's life
    EXPECT_NEAR(m.zoom.scale, 1.8, 0.05);
    EXPECT_NEAR(m.zoom.centerX, 0.5 / 1.8, 0.02);
    EXPECT_NEAR(m.zoom.centerY, 0.5 / 1.8, 0.02);
    EXPECT_NEAR(m.cursor->x, 0.2, 0.01);
    // The pointer has rested: gone by 2.3 s (its fade is IdleFade's to check).
    for (; t < 3 * frame + 2.35; t += frame)
        m = source.moment(t, frame);
    EXPECT_EQ(m.cursor->alpha, 0);
    // Once the hold has passed the view settles back to exactly the whole picture.
    for (; t < 5; t += frame)
        m = source.moment(t, frame);
    EXPECT_EQ(m.zoom, ZoomState::identity());
    EXPECT_EQ(m.zoomVelocity, 0);

    // With zoom on clicks off a click only ripples.
    switches->set({true, false, true});
    inputs->postClick(0.9, 0.9);
    for (int i = 0; i < 30; ++i, t += frame)
        m = source.moment(t, frame);
    EXPECT_EQ(m.zoom, ZoomState::identity());
    EXPECT_EQ(m.clicks.size(), 1u);
}

} // namespace
} // namespace plim
