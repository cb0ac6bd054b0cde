// How the wlr source hands the compositor's pictures to its ticks: each once, in the order
// shown, at the instant shown; a tick without one repeats the last, early enough for a late
// picture to keep its instant; a flood loses its oldest.

#include "capture/wayland/shown_pictures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace plim {
namespace {

constexpr double period = 1.0 / 60;

// A 1x1 picture whose blue byte names it.
Image named(uint8_t name)
{
    Image image = Image::allocate(1, 1);
    image.row(0)[0] = name;
    return image;
}

uint8_t nameOf(const CapturedFrame& frame) { return frame.image.row(0)[0]; }

TEST(WlrShownPictures, PicturesThatStraddleTheTicksAreEachHandedOnOnceAtTheirInstant)
{
    ShownPictures shown(3);
    shown.setLast(named(0));
    // Picture n is ready (its copy done, 4 ms after it was shown) near tick n: the first
    // three before it, the fourth just after it (that tick repeats the third), the seventh
    // before its tick while the sixth still waits, so two wait at once.
    const double copying = 0.004;
    const std::vector<double> readyOffsets{-0.006, -0.005, -0.007, 0.003, 0.002, 0.001, -0.001, 0.002, 0.001, 0.003};
    std::vector<double> shownAt;
    std::vector<uint8_t> handedOn;
    std::vector<double> stamps;
    size_t next = 0;
    for (int tick = 1; tick <= 12; ++tick) {
        const double due = tick * period;
        while (next < readyOffsets.size() && double(next + 1) * period + readyOffsets[next] <= due) {
            shownAt.push_back(double(next + 1) * period + readyOffsets[next] - copying);
            shown.add(named(uint8_t(next + 1)), shownAt.back());
            ++next;
        }
        CapturedFrame frame = shown.take(due, due - copying);
        handedOn.push_back(nameOf(frame));
        stamps.push_back(frame.uptime);
    }
    // Every picture once, in order; the ticks without a new one hand on the one before.
    EXPECT_EQ(handedOn, (std::vector<uint8_t>{1, 2, 3, 3, 4, 5, 6, 7, 8, 9, 10, 10}));
    EXPECT_EQ(shown.fresh(), 10);
    EXPECT_EQ(shown.repeated(), 2);
    EXPECT_EQ(shown.passedOver(), 0);
    // The repeat at the fourth tick is stamped a copy's time before it, as the fourth
    // picture, shown 1 ms before that tick, was still being copied; every picture carries
    // the instant it was shown.
    EXPECT_DOUBLE_EQ(stamps[3], 4 * period - copying);
    EXPECT_DOUBLE_EQ(stamps[11], 12 * period - copying);
    for (size_t i : {0, 1, 2, 4, 5, 6, 7, 8, 9, 10})
        EXPECT_DOUBLE_EQ(stamps[i], shownAt[handedOn[i] - 1]) << "tick " << i + 1;
    // Every stamp lands on a 1/600 s tick of the movie of its own, in order.
    for (size_t i = 1; i < stamps.size(); ++i)
        EXPECT_GT(std::llround(stamps[i] * 600), std::llround(stamps[i - 1] * 600)) << "tick " << i + 1;
}

TEST(WlrShownPictures, ATickWithNothingNewRepeatsTheLastNoLaterThanItsOwnInstant)
{
    ShownPictures shown(3);
    shown.setLast(named(7));
    // Nothing can still be coming: the tick's instant.
    CapturedFrame first = shown.take(1.0, 2.0);
    EXPECT_EQ(nameOf(first), 7);
    EXPECT_DOUBLE_EQ(first.uptime, 1.0);
    // A copy may be under way for 10 ms more: the repeat goes before what it may bring.
    CapturedFrame waiting = shown.take(1.0 + period, 1.0 + period - 0.010);
    EXPECT_EQ(nameOf(waiting), 7);
    EXPECT_DOUBLE_EQ(waiting.uptime, 1.0 + period - 0.010);
    shown.add(named(8), 1.0 + period - 0.005);
    CapturedFrame late = shown.take(1.0 + 2 * period, 1.0 + 2 * period);
    EXPECT_EQ(nameOf(late), 8);
    EXPECT_DOUBLE_EQ(late.uptime, 1.0 + period - 0.005);
    // A copy slower than the bound (shown before the stamp already handed on) comes 2 ms
    // after the one before, never before it.
    shown.add(named(9), 1.0);
    CapturedFrame slow = shown.take(1.0 + 3 * period, 1.0 + 3 * period);
    EXPECT_EQ(nameOf(slow), 9);
    EXPECT_DOUBLE_EQ(slow.uptime, 1.0 + period - 0.005 + ShownPictures::minimumGap);
    EXPECT_EQ(shown.repeated(), 2);
    EXPECT_EQ(shown.fresh(), 2);
}

TEST(WlrShownPictures, ACompositorFasterThanTheTicksLosesItsOldestPictures)
{
    ShownPictures shown(3);
    shown.setLast(named(0));
    for (uint8_t n = 1; n <= 5; ++n)
        shown.add(named(n), n * 0.004);
    EXPECT_EQ(shown.waiting(), 3u);
    EXPECT_EQ(shown.passedOver(), 2);
    for (uint8_t n : {3, 4, 5})
        EXPECT_EQ(nameOf(shown.take(1.0, 1.0)), n);
    EXPECT_TRUE(shown.empty());
}

} // namespace
} // namespace plim
