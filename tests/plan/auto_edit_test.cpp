#include "plan/auto_edit.h"
#include "plan/time_remap.h"

#include "base/dates.h"
#include "capture/cursor_track.h"
#include "capture/keystroke_track.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace plim;
using namespace plim::AutoEdit;

namespace {

constexpr double tick = 1.0 / 120;

// A pointer resting at (x, y) from 0 to `duration`, sampled at 60 Hz.
std::vector<PointerSample> resting(double duration, double x = 500, double y = 400)
{
    std::vector<PointerSample> samples;
    for (int i = 0; i <= static_cast<int>(duration * 60); ++i)
        samples.push_back({i / 60.0, x, y});
    return samples;
}

Performance still(double duration)
{
    Performance p;
    p.duration = duration;
    p.recordedSize = {1000, 1000};
    p.pointer = resting(duration);
    return p;
}

bool overlaps(const Zoom& z, const Skip& s) { return z.start < s.end && s.start < z.end; }

} // namespace

TEST(AutoEditCleaning, DropsNonFiniteValuesAndSortsByTime)
{
    double nan = std::nan(""), inf = INFINITY;
    Performance p;
    p.duration = nan;
    p.pointer = {{2, 1, 1}, {nan, 0, 0}, {1, inf, 0}, {0.5, 3, 3}};
    p.actionPoints = {{4, 0, 0}, {3, 0, nan}, {1, 1, 1}};
    p.activity = {5, nan, 2};
    p.speech = {{4, 5}, {1, inf}, {2, 1}, {0, 1}};
    Performance c = cleaned(p);
    EXPECT_EQ(c.duration, 0);
    EXPECT_EQ(c.pointer, (std::vector<PointerSample>{{0.5, 3, 3}, {2, 1, 1}}));
    EXPECT_EQ(c.actionPoints, (std::vector<ActionPoint>{{1, 1, 1}, {4, 0, 0}}));
    EXPECT_EQ(c.activity, (std::vector<double>{2, 5}));
    EXPECT_EQ(c.speech, (std::vector<IdleSpan>{{0, 1}, {4, 5}}));
}

TEST(AutoEditCleaning, BusySpansWidenKeysAndSpeechAndMergeOverlaps)
{
    Performance p;
    p.activity = {1.0, 1.5, 4.0, 5.0};
    p.speech = {{7, 8}, {8.5, 9}};
    std::vector<IdleSpan> busy = busySpans(cleaned(p));
    // Keys a second apart only touch, so they stay apart; speech 0.5 s apart merges.
    std::vector<IdleSpan> expected{{0.5, 2.0}, {3.5, 4.5}, {4.5, 5.5}, {6.7, 9.3}};
    ASSERT_EQ(busy.size(), expected.size());
    for (size_t i = 0; i < busy.size(); ++i) {
        EXPECT_NEAR(busy[i].start, expected[i].start, 1e-12) << i;
        EXPECT_NEAR(busy[i].end, expected[i].end, 1e-12) << i;
    }
}

TEST(AutoEditTrim, NothingHappeningLeavesTheWholeRecording)
{
    for (double duration : {0.0, 0.3, 12.0}) {
        Proposal r = make(still(duration));
        EXPECT_EQ(r.trim, (Trim{0, duration})) << duration;
        EXPECT_TRUE(r.zooms.empty());
    }
    // Without a pointer there is nothing to measure rests by.
    Performance empty;
    empty.duration = 20;
    empty.activity = {10};
    EXPECT_NEAR(make(empty).trim.in, 10 - 0.5 - 0.35, 1e-12);
    EXPECT_EQ(make(empty).trim.out, 20);
    EXPECT_TRUE(make(empty).skips.empty());
}

TEST(AutoEditTrim, TrimsToTheFirstActivityAndTheLastAction)
{
    Performance p = still(30);
    // The pointer starts moving at 3.0 s (7 points away from where it rested).
    for (PointerSample& s : p.pointer)
        if (s.t >= 3.0) s.x = 507;
    p.actionPoints = {{10, 507, 400}};
    Trim t = make(p).trim;
    EXPECT_NEAR(t.in, 2.65, 1e-9);
    EXPECT_NEAR(t.out, 11.1, 1e-9);

    // A key press after the last click keeps the end going; a speech span before the motion
    // starts it earlier.
    p.activity = {20};
    p.speech = {{1.5, 2.0}};
    t = make(p).trim;
    EXPECT_NEAR(t.in, 1.2 - 0.35, 1e-9);
    EXPECT_NEAR(t.out, 20.75, 1e-9);

    // Moving 6 points is not yet motion.
    Performance small = still(30);
    for (PointerSample& s : small.pointer)
        if (s.t >= 3.0) s.x = 506;
    EXPECT_EQ(make(small).trim.in, 0);

    // At least half a second is kept.
    Performance late = still(10);
    late.actionPoints = {{9.9, 500, 400}};
    EXPECT_EQ(make(late).trim, (Trim{9.5, 10}));
}

TEST(AutoEditSkips, IdleRunsOfAtLeastOnePointSixSecondsAreSpedUpWithCalmAtBothSides)
{
    // A resting pointer is idle except near key presses. The first busy span ends at
    // tick 240.5, so ticks 241.. are idle until the second starts.
    auto withIdleRun = [](int idleTicks) {
        Performance p = still(12);
        double firstKey = 240.5 * tick - 0.5;
        double secondKey = (241 + idleTicks - 0.5) * tick + 0.5;
        p.activity = {firstKey, secondKey, 11.8};
        return make(p).skips;
    };
    std::vector<Skip> exact = withIdleRun(192); // 1.6 s
    ASSERT_FALSE(exact.empty());
    EXPECT_NEAR(exact.front().start, 241 * tick + 0.3, 1e-9);
    EXPECT_NEAR(exact.front().end - exact.front().start, 1.0, 1e-9);
    EXPECT_EQ(exact.front().speed, 4.0);

    std::vector<Skip> shorter = withIdleRun(191); // 1.5917 s
    EXPECT_EQ(shorter.size() + 1, exact.size());
    for (const Skip& s : shorter)
        EXPECT_GT(s.start, 241 * tick + 1.0) << "the run just short of 1.6 s gave a skip";
}

TEST(AutoEditSkips, SlowDriftIsIdleButRealMotionIsNot)
{
    Performance p;
    p.duration = 20;
    p.recordedSize = {1920, 1080};
    // 0-5 s: sweeping at 300 pt/s; 5-15 s: creeping at 20 pt/s; 15-20 s: sweeping again.
    // Speed is measured over 0.1 s, so the rest is seen from 5.1 s.
    double x = 0;
    for (int i = 0; i <= 20 * 60; ++i) {
        double t = i / 60.0;
        p.pointer.push_back({t, x, 500});
        x += (t >= 5 && t < 15 ? 20.0 : 300.0) / 60;
    }
    p.actionPoints = {{19.5, x, 500}};
    Proposal r = make(p);
    ASSERT_EQ(r.skips.size(), 1u);
    EXPECT_NEAR(r.skips[0].start, 5.4, 0.02);
    EXPECT_NEAR(r.skips[0].end, 14.7, 0.02);
    EXPECT_EQ(r.trim.in, 0);
    EXPECT_NEAR(r.trim.out, 20, 1e-12);
}

TEST(AutoEditZooms, ClicksClusterByTimeAndDistance)
{
    Performance p = still(30);
    p.activity = {9, 10, 11, 12, 13, 14, 15, 16, 17, 18}; // busy: no skips in the way
    p.actionPoints = {{10, 400, 400}, {12.39, 500, 400}};
    std::vector<Zoom> together = make(p).zooms;
    ASSERT_EQ(together.size(), 1u);
    EXPECT_EQ(together[0].clicks, 2);
    EXPECT_NEAR(together[0].start, 9.45, 1e-9);
    EXPECT_NEAR(together[0].end, 13.34, 1e-9);
    EXPECT_NEAR(together[0].x, 0.45, 1e-12);
    EXPECT_NEAR(together[0].y, 0.4, 1e-12);

    p.actionPoints = {{10, 400, 400}, {12.4, 500, 400}};
    EXPECT_EQ(make(p).zooms.size(), 2u);

    // Soon enough but too far from the cluster's centroid.
    p.actionPoints = {{10, 0, 0}, {11, 100, 0}, {12, 700, 0}};
    std::vector<Zoom> apart = make(p).zooms;
    ASSERT_EQ(apart.size(), 2u);
    EXPECT_EQ(apart[0].clicks, 2);
    EXPECT_EQ(apart[1].clicks, 1);
}

TEST(AutoEditZooms, LevelFollowsHowMuchTheClicksSpread)
{
    EXPECT_EQ(zoomLevel(Subject::phone, 1.37), 1.3);
    EXPECT_EQ(zoomLevel(Subject::phone, 1.4), 1.4);
    EXPECT_EQ(zoomLevel(Subject::phone, 1.0), 1.15);
    EXPECT_EQ(zoomLevel(Subject::phone, 3.0), 1.4);
    EXPECT_EQ(zoomLevel(Subject::screen, 2.0), 1.8);
    EXPECT_EQ(zoomLevel(Subject::window, 2.4), 2.4);
    EXPECT_EQ(zoomLevel(Subject::area, 1.5), 1.4);
    EXPECT_EQ(zoomLevel(Subject::screen, 0), 1.4);
    EXPECT_EQ(clusterFit({0, 1080}, 10, 10), 0);
    EXPECT_NEAR(clusterFit({1000, 1000}, 0, 230), 2.0, 1e-12);

    Performance p = still(30);
    p.activity = {11};
    // Two clicks 230 points apart vertically: fit 2.0, so 1.8 on a screen.
    p.actionPoints = {{10, 400, 400}, {11, 400, 630}};
    ASSERT_EQ(make(p).zooms.size(), 1u);
    EXPECT_EQ(make(p).zooms[0].level, 1.8);
    p.subject = Subject::phone;
    EXPECT_EQ(make(p).zooms[0].level, 1.4);
    // Unknown size: the default level, centred.
    p.subject = Subject::screen;
    p.recordedSize = {};
    EXPECT_EQ(make(p).zooms[0].level, 1.4);
    EXPECT_EQ(make(p).zooms[0].x, 0.5);
}

TEST(AutoEditZooms, ZoomsStayOffSkipsAndShortOnesAreDropped)
{
    Performance p = still(13);
    // Busy 4.5-5.5 and 8.8-9.8: the pointer rests in between, so 5.5-8.8 is sped up.
    p.activity = {5, 9.3, 12};
    p.actionPoints = {{9.0, 500, 500}};
    Proposal r = make(p);
    ASSERT_FALSE(r.skips.empty());
    EXPECT_NEAR(r.skips[0].start, 5.5 + tick + 0.3, 1e-9);
    EXPECT_NEAR(r.skips[0].end, 8.5, 1e-9);
    ASSERT_EQ(r.zooms.size(), 1u);
    EXPECT_NEAR(r.zooms[0].start, r.skips[0].end, 1e-12);
    EXPECT_NEAR(r.zooms[0].end, 10.05, 1e-9);
    for (const Zoom& z : r.zooms)
        for (const Skip& s : r.skips)
            EXPECT_FALSE(overlaps(z, s));

    // A click in the middle of a long rest: its zoom would sit inside the skip and is dropped.
    Performance q = still(20);
    q.activity = {2, 19};
    q.actionPoints = {{10, 500, 500}};
    Proposal idle = make(q);
    ASSERT_EQ(idle.skips.size(), 1u);
    EXPECT_TRUE(idle.zooms.empty());
}

TEST(AutoEditSummary, NamesWhatWasDone)
{
    Proposal r;
    r.trim = {0, 10};
    EXPECT_EQ(summary(r, 10, true, false), "Nothing needed editing");
    EXPECT_EQ(summary(r, 10.3, true, false), "Nothing needed editing");
    EXPECT_EQ(summary(r, 10.31, true, false), "ends trimmed");
    r.zooms = {Zoom{}};
    r.skips = {Skip{1, 3, 4.0}, Skip{5, 8, 2.5}};
    EXPECT_EQ(summary(r, 10, true, true), "1 zoom where you clicked · dead air 4× faster · cursor smoothed");
    r.zooms.push_back(Zoom{});
    r.trim = {1, 9};
    EXPECT_EQ(summary(r, 10, false, false), "2 zooms where you clicked · ends trimmed");
    r.skips = {Skip{1, 3, 2.5}};
    EXPECT_EQ(summary(r, 10, true, false), "2 zooms where you clicked · dead air 2.5× faster · ends trimmed");

    EXPECT_EQ(speedLabel(4), "4×");
    EXPECT_EQ(speedLabel(16), "16×");
    EXPECT_EQ(speedLabel(1.5), "1.5×");
    EXPECT_EQ(speedLabel(3.14), "3.1×");
    EXPECT_EQ(speedLabel(NAN), "?×");
}

TEST(AutoEditTracks, PerformanceComesFromTheCursorAndKeystrokeTracks)
{
    CursorTrack track;
    track.displayX = 100;
    track.displayY = 50;
    track.displayWidth = 1000;
    track.displayHeight = 500;
    track.samples = {{0, 600, 300, 0}, {16, 601, 300, 1}, {33, 2000, -10, 0}};
    track.clicks = {{1500, 350, 175}};
    KeystrokeTrack keys{{KeyEvent{2500, "⌘S"}}};
    Performance p = performance(track, &keys, {{3, 4}}, 12.5);
    EXPECT_EQ(p.subject, Subject::screen);
    EXPECT_EQ(p.recordedSize, (Size{1000, 500}));
    EXPECT_EQ(p.duration, 12.5);
    ASSERT_EQ(p.pointer.size(), 3u);
    EXPECT_EQ(p.pointer[0], (PointerSample{0, 500, 250}));
    EXPECT_EQ(p.pointer[2], (PointerSample{0.033, 1000, 0})); // outside the region: clamped to its edge
    EXPECT_EQ(p.actionPoints, (std::vector<ActionPoint>{{1.5, 250, 125}}));
    EXPECT_EQ(p.activity, (std::vector<double>{0.016, 2.5}));
    EXPECT_EQ(p.speech, (std::vector<IdleSpan>{{3, 4}}));
    EXPECT_EQ(performance(track, nullptr, {}, NAN).duration, 0);

    // A window that moved: positions are taken inside the window's frame at that time.
    track.frames = {{1000, 300, 250, 500, 250}};
    track.clicks = {{500, 350, 175}, {1500, 350, 375}};
    Performance w = performance(track, nullptr, {}, 5);
    EXPECT_EQ(w.subject, Subject::window);
    EXPECT_EQ(w.actionPoints[0], (ActionPoint{0.5, 250, 125}));
    EXPECT_EQ(w.actionPoints[1], (ActionPoint{1.5, 100, 250}));
    EXPECT_EQ(performance(track, nullptr, {}, 5, Subject::area).subject, Subject::area);
    EXPECT_EQ(performance(CursorTrack::deviceTrack(1170, 2532), nullptr, {}, 5).subject, Subject::phone);
}

TEST(AutoEditPlan, ResultEntersAPlan)
{
    Proposal r;
    r.trim = {1.25, 40};
    r.skips = {{5, 9, 4.0}};
    r.zooms = {{12, 15, 1.8, 0.25, 0.75, 3}};
    EditPlan plan = AutoEdit::plan(r);
    EXPECT_EQ(plan.trimIn, 1.25);
    EXPECT_EQ(plan.trimOut, 40);
    ASSERT_EQ(plan.skips.size(), 1u);
    EXPECT_EQ(plan.skips[0], (SkipDecision{{5, 9}, false, 4.0}));
    ASSERT_EQ(plan.zooms.size(), 1u);
    const ZoomBlock& z = plan.zooms[0];
    EXPECT_TRUE(isUuid(z.id));
    EXPECT_EQ(z.start, 12);
    EXPECT_EQ(z.end, 15);
    EXPECT_EQ(z.scale, 1.8);
    EXPECT_EQ(z.centerX, 0.25);
    EXPECT_EQ(z.centerY, 0.75);
    EXPECT_EQ(z.origin, ZoomBlock::Origin::clickCluster(3));
    EXPECT_FALSE(z.style.has_value());
    // 1.25..40 with 4 s at 4x.
    EXPECT_DOUBLE_EQ(TimeRemap::of(plan, 50).outputDuration(50), 38.75 - 3);
}

TEST(AutoEdit, ARecordingWithRestsAndClickBurstsEndToEnd)
{
    // 60 s: 4 s of rest before anything happens; clicks around 8 s and 30 s; a 12 s rest
    // in between; typing at 45-48 s; rest to the end.
    Performance p;
    p.duration = 60;
    p.recordedSize = {1920, 1080};
    for (int i = 0; i <= 60 * 60; ++i) {
        double t = i / 60.0;
        double x = 900, y = 500;
        if (t >= 4 && t < 12) x = 900 + 150 * std::sin(t * 3), y = 500 + 100 * std::cos(t * 2);
        if (t >= 26 && t < 34) x = 300 + 200 * std::sin(t * 2), y = 800;
        if (t >= 34) x = 300, y = 800;
        p.pointer.push_back({t, x, y});
    }
    p.actionPoints = {{7.5, 950, 520}, {8.4, 980, 560}, {9.1, 1000, 540}, {30.0, 320, 790}, {31.5, 340, 800}};
    for (double t = 45; t <= 48; t += 0.15)
        p.activity.push_back(t);
    Proposal r = make(p);

    EXPECT_NEAR(r.trim.in, 3.65, 0.02);
    EXPECT_NEAR(r.trim.out, 48.0 + 0.5 + 0.25, 0.16);
    ASSERT_EQ(r.zooms.size(), 2u);
    EXPECT_EQ(r.zooms[0].clicks, 3);
    EXPECT_EQ(r.zooms[1].clicks, 2);
    EXPECT_EQ(r.zooms[0].level, 2.4);
    // Rests 12-26 s and 34-44.5 s are sped up.
    ASSERT_EQ(r.skips.size(), 2u);
    EXPECT_NEAR(r.skips[0].start, 12.4, 0.05);
    EXPECT_NEAR(r.skips[0].end, 25.7, 0.05);
    EXPECT_NEAR(r.skips[1].start, 34.4, 0.05);
    EXPECT_NEAR(r.skips[1].end, 44.2, 0.05);
    for (const Zoom& z : r.zooms)
        for (const Skip& s : r.skips)
            EXPECT_FALSE(overlaps(z, s));
    EXPECT_EQ(summary(r, 60, true, false), "2 zooms where you clicked · dead air 4× faster · ends trimmed");
}

TEST(AutoEdit, DamagedInputGivesAnEditWithoutFailing)
{
    Performance p;
    p.duration = -5;
    p.pointer = {{NAN, 1, 1}, {1, INFINITY, 2}};
    p.actionPoints = {{NAN, 0, 0}};
    p.activity = {NAN, INFINITY};
    p.speech = {{NAN, 1}};
    p.recordedSize = {NAN, -3};
    Proposal r = make(p);
    EXPECT_EQ(r.trim, (Trim{0, 0}));
    EXPECT_TRUE(r.skips.empty());
    EXPECT_TRUE(r.zooms.empty());
    // An empty result adds no trims to a plan, so nothing gets cut.
    EditPlan plan = AutoEdit::plan(r);
    EXPECT_FALSE(plan.trimIn.has_value());
    EXPECT_FALSE(plan.trimOut.has_value());
}
