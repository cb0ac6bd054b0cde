// How the wlr source hands the compositor's pictures to its ticks: each once, in the order
// shown, at the instant shown; a tick without one repeats the last, early enough for a late
// picture to keep its instant; a flood loses its oldest. Pictures here are their numbers.

#include "capture/wayland/shown_pictures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace plim {
namespace {

constexpr double period = 1.0 / 60;
using Shown = ShownPictures<int>;

TEST(WlrShownPictures, PicturesThatStraddleTheTicksAreEachHandedOnOnceAtTheirInstant)
{
    Shown shown(3);
    // Picture n is ready (its copy done, 4 ms after it was shown) near tick n: the first
    // three before it, the fourth just after it (that tick repeats the third), the seventh
    // before its tick while the sixth still waits, so two wait at once.
    const double copying = 0.004;
    const std::vector<double> readyOffsets{-0.006, -0.005, -0.007, 0.003, 0.002, 0.001, -0.001, 0.002, 0.001, 0.003};
    std::vector<double> shownAt;
    std::vector<int> handedOn;
    std::vector<double> stamps;
    size_t next = 0;
    int last = 0;
    for (int tick = 1; tick <= 12; ++tick) {
        const double due = tick * period;
        while (next < readyOffsets.size() && double(next + 1) * period + readyOffsets[next] <= due) {
            shownAt.push_back(double(next + 1) * period + readyOffsets[next] - copying);
            EXPECT_FALSE(shown.add(int(next + 1), shownAt.back()));
            ++next;
        }
        auto taken = shown.take(due, due - copying);
        last = taken.picture.value_or(last);
        handedOn.push_back(last);
        stamps.push_back(taken.at);
    }
    // Every picture once, in order; the ticks without a new one hand on the one before.
    EXPECT_EQ(handedOn, (std::vector<int>{1, 2, 3, 3, 4, 5, 6, 7, 8, 9, 10, 10}));
    EXPECT_EQ(shown.fresh(), 10);
    EXPECT_EQ(shown.repeated(), 2);
    EXPECT_EQ(shown.passedOver(), 0);
    // The repeat at the fourth tick is stamped a copy's time before it, as the fourth
    // picture, shown 1 ms before that tick, was still being copied; every picture carries
    // the instant it was shown.
    EXPECT_DOUBLE_EQ(stamps[3], 4 * period - copying);
    EXPECT_DOUBLE_EQ(stamps[11], 12 * period - copying);
    for (size_t i : {0, 1, 2, 4, 5, 6, 7, 8, 9, 10})
        EXPECT_DOUBLE_EQ(stamps[i], shownAt[size_t(handedOn[i] - 1)]) << "tick " << i + 1;
    // Every stamp lands on a 1/600 s tick of the movie of its own, in order.
    for (size_t i = 1; i < stamps.size(); ++i)
        EXPECT_GT(std::llround(stamps[i] * 600), std::llround(stamps[i - 1] * 600)) << "tick " << i + 1;
}

TEST(WlrShownPictures, ATickWithNothingNewRepeatsTheLastNoLaterThanItsOwnInstant)
{
    Shown shown(3);
    // Nothing can still be coming: the tick's instant.
    auto first = shown.take(1.0, 2.0);
    EXPECT_FALSE(first.picture);
    EXPECT_DOUBLE_EQ(first.at, 1.0);
    // A copy may be under way for 10 ms more: the repeat goes before what it may bring.
    auto waiting = shown.take(1.0 + period, 1.0 + period - 0.010);
    EXPECT_FALSE(waiting.picture);
    EXPECT_DOUBLE_EQ(waiting.at, 1.0 + period - 0.010);
    shown.add(8, 1.0 + period - 0.005);
    auto late = shown.take(1.0 + 2 * period, 1.0 + 2 * period);
    EXPECT_EQ(late.picture, 8);
    EXPECT_DOUBLE_EQ(late.at, 1.0 + period - 0.005);
    // A copy slower than the bound (shown before the stamp already handed on) comes 2 ms
    // after the one before, never before it.
    shown.add(9, 1.0);
    auto slow = shown.take(1.0 + 3 * period, 1.0 + 3 * period);
    EXPECT_EQ(slow.picture, 9);
    EXPECT_DOUBLE_EQ(slow.at, 1.0 + period - 0.005 + Shown::minimumGap);
    EXPECT_EQ(shown.repeated(), 2);
    EXPECT_EQ(shown.fresh(), 2);
}

TEST(WlrShownPictures, ACompositorFasterThanTheTicksLosesItsOldestPictures)
{
    Shown shown(3);
    std::vector<int> passed;
    for (int n = 1; n <= 5; ++n)
        if (auto out = shown.add(n, n * 0.004))
            passed.push_back(*out);
    // The oldest come back, so their buffers can take the next copies.
    EXPECT_EQ(passed, (std::vector<int>{1, 2}));
    EXPECT_EQ(shown.waiting(), 3u);
    EXPECT_EQ(shown.passedOver(), 2);
    for (int n : {3, 4, 5})
        EXPECT_EQ(shown.take(1.0, 1.0).picture, n);
    EXPECT_TRUE(shown.empty());
}

} // namespace
} // namespace plim
