#include "capture/track_placement.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>

using namespace plim;

TEST(TrackPlacement, PointsLandInTheRegionOfTheLastFrameKeyAtOrBeforeTheirStamp)
{
    CursorTrack track{.displayX = 100, .displayY = 50, .displayWidth = 1000, .displayHeight = 500,
        .frames = {{2000, 0, 0, 0, 300}, {1000, 200, 100, 400, 200}, {3000, 0, 0, 300, NAN}, {4000, 0, 0, 100, 100}}};
    const TrackPlacement place(track); // keys out of order are put in order
    const double nan = std::nan(""), inf = std::numeric_limits<double>::infinity();
    struct Row {
        double x, y;
        int64_t ms;
        Point expected;
    };
    for (auto [x, y, ms, expected] : std::vector<Row>{
             {600, 300, 999, {0.5, 0.5}}, {300, 150, 999, {0.2, 0.2}},    // the display before the first key
             {300, 150, 1000, {0.25, 0.25}}, {300, 150, 1999, {0.25, 0.25}}, // the key from its stamp on
             {100, 400, 1500, {0, 1}},                                         // outside clamps to the edges
             {300, 150, 2000, {0.5, 0.5}}, {300, 150, 3000, {0.5, 0.5}},       // empty or non-finite: the middle
             {nan, 25, 4000, {0.5, 0.25}}, {inf, -inf, 4000, {0.5, 0.5}},      // one rule per axis
             {nan, nan, -5, {0.5, 0.5}}}) {
        EXPECT_EQ(place.unitPoint(x, y, ms), expected) << x << ", " << y << " at " << ms;
    }
    EXPECT_EQ(place.regionAt(1500), (Rect{200, 100, 400, 200}));
    EXPECT_EQ(TrackPlacement(CursorTrack{}).unitPoint(3, 4, 0), (Point{0.5, 0.5}));

    // Keys sharing a stamp: the last one in the file counts.
    CursorTrack shared{.displayWidth = 100, .displayHeight = 100};
    for (int64_t i = 0; i < 40; ++i)
        shared.frames.push_back({(i / 3) * 10, static_cast<double>(i), 0, 100, 100});
    const TrackPlacement keyed(shared);
    for (int64_t at = -5; at <= 140; at += 5) {
        double expectedX = 0;
        for (const auto& frame : shared.frames)
            if (frame.t <= at)
                expectedX = frame.x;
        EXPECT_EQ(keyed.unitPoint(50, 0, at).x, (50 - expectedX) / 100) << at;
    }
}

TEST(TrackPlacement, MovieTimeIsTrackTimeLessTheOffset)
{
    struct Row {
        int64_t offset, trackMS, movieMS;
    };
    constexpr int64_t most = std::numeric_limits<int64_t>::max(), least = std::numeric_limits<int64_t>::min();
    for (auto [offset, trackMS, movieMS] : std::vector<Row>{
             {0, 1500, 1500}, {1000, 1500, 500}, {1000, 400, -600}, {-250, 0, 250},
             {1, least, least}, {-1, most, most}}) { // saturated, never wrapped
        const TrackPlacement place(CursorTrack{.videoStartOffsetMS = offset});
        EXPECT_EQ(place.movieMS(trackMS), movieMS) << offset << " " << trackMS;
        EXPECT_EQ(place.movieSeconds(trackMS), static_cast<double>(movieMS) / 1000);
    }
}
