#include "plan/auto_edit.h"
#include "plan/time_remap.h"

#include "base/dates.h"
#include "capture/capture.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace plim;
using namespace plim::AutoEdit;

namespace {

constexpr double tick = 1.0 / 120;

// 1000 x 1000 points with the pointer resting at (500, 400), sampled at 60 Hz; from `movesAt`
// on it rests `dx` points to the right.
Performance still(double duration, std::vector<double> keys = {}, std::vector<ActionPoint> clicks = {},
    double movesAt = INFINITY, double dx = 0)
{
    Performance p{.duration = duration, .recordedSize = {1000, 1000}, .activity = keys, .actionPoints = clicks};
    for (int i = 0; i <= static_cast<int>(duration * 60); ++i)
        p.pointer.push_back({i / 60.0, i / 60.0 >= movesAt ? 500 + dx : 500, 400});
    return p;
}

void expectZoom(const Zoom& got, const Zoom& want)
{
    double off = std::abs(got.start - want.start) + std::abs(got.end - want.end) + std::abs(got.x - want.x)
        + std::abs(got.y - want.y);
    EXPECT_TRUE(off < 1e-9 && got.level == want.level && got.clicks == want.clicks) << got.start << " to " << got.end
        << " at " << got.x << ", " << got.y << " level " << got.level << " from " << got.clicks << " clicks";
}

} // namespace

TEST(AutoEdit, CleaningAndBusySpans)
{
    double nan = std::nan(""), inf = INFINITY;
    Performance c = cleaned({.duration = nan, .pointer = {{2, 1, 1}, {nan, 0, 0}, {1, inf, 0}, {0.5, 3, 3}},
        .activity = {5, nan, 2}, .actionPoints = {{4, 0, 0}, {3, 0, nan}, {1, 1, 1}},
        .speech = {{4, 5}, {1, inf}, {2, 1}, {0, 1}}});
    EXPECT_EQ(c, (Performance{.pointer = {{0.5, 3, 3}, {2, 1, 1}}, .activity = {2, 5},
                     .actionPoints = {{1, 1, 1}, {4, 0, 0}}, .speech = {{0, 1}, {4, 5}}}));

    // Keys a second apart only touch, so they stay apart; speech 0.5 s apart merges.
    auto busy = busySpans(cleaned({.activity = {1.0, 1.5, 4.0, 5.0}, .speech = {{7, 8}, {8.5, 9}}}));
    EXPECT_EQ(busy, (std::vector<IdleSpan>{{0.5, 2.0}, {3.5, 4.5}, {4.5, 5.5}, {7 - 0.3, 9 + 0.3}}));

    // Nothing usable: an empty edit that adds no trims to a plan.
    Proposal r = make({.duration = -5, .recordedSize = {nan, -3}, .pointer = {{nan, 1, 1}, {1, inf, 2}},
        .activity = {nan, inf}, .actionPoints = {{nan, 0, 0}}, .speech = {{nan, 1}}});
    EXPECT_EQ(r, (Proposal{.trim = {0, 0}}));
    EXPECT_EQ(AutoEdit::plan(r), EditPlan{});
}

TEST(AutoEdit, TrimRunsFromJustBeforeTheFirstActivityToAfterTheLastAction)
{
    struct Case { const char* what; Performance p; Trim want; };
    const std::vector<Case> cases = {
        {"nothing happens", still(12), {0, 12}},
        {"too short to trim", still(0.3), {0, 0.3}},
        {"empty", still(0), {0, 0}},
        {"keys without a pointer", {.duration = 20, .activity = {10}}, {10 - 0.5 - 0.35, 20}},
        {"moves 7 points at 3 s, clicks at 10 s", still(30, {}, {{10, 507, 400}}, 3, 7), {2.65, 11.1}},
        {"keys before the motion and after the click", still(30, {1.5, 20}, {{10, 507, 400}}, 3, 7), {0.65, 20.75}},
        {"6 points is not yet motion", still(30, {}, {}, 3, 6), {0, 30}},
        {"at least half a second is kept", still(10, {}, {{9.9, 500, 400}}), {9.5, 10}},
    };
    for (const Case& c : cases) {
        Proposal r = make(c.p);
        EXPECT_NEAR(r.trim.in, c.want.in, 1e-9) << c.what;
        EXPECT_NEAR(r.trim.out, c.want.out, 1e-9) << c.what;
    }
}

TEST(AutoEdit, IdleRunsOfAtLeastOnePointSixSecondsAreSpedUpWithCalmAtBothSides)
{
    // A resting pointer is idle except near key presses. The first busy span ends at tick
    // 240.5, so ticks 241.. are idle until the second starts.
    auto withIdleRun = [](int idleTicks) {
        return make(still(12, {240.5 * tick - 0.5, (241 + idleTicks - 0.5) * tick + 0.5, 11.8})).skips;
    };
    std::vector<Skip> exact = withIdleRun(192); // 1.6 s
    ASSERT_FALSE(exact.empty());
    EXPECT_NEAR(exact.front().start, 241 * tick + 0.3, 1e-9);
    EXPECT_NEAR(exact.front().end - exact.front().start, 1.0, 1e-9);
    EXPECT_EQ(exact.front().speed, 4.0);
    std::vector<Skip> shorter = withIdleRun(191);
    EXPECT_EQ(shorter.size() + 1, exact.size());
    for (const Skip& s : shorter)
        EXPECT_GT(s.start, 241 * tick + 1.0) << "the run just short of 1.6 s gave a skip";

    // Sweeping at 300 pt/s, creeping at 20 pt/s from 5 to 15 s, sweeping again. Speed is
    // measured over 0.1 s, so the rest is seen from 5.1 s.
    Performance p{.duration = 20, .recordedSize = {1920, 1080}};
    double x = 0;
    for (int i = 0; i <= 20 * 60; ++i) {
        p.pointer.push_back({i / 60.0, x, 500});
        x += (i / 60.0 >= 5 && i / 60.0 < 15 ? 20.0 : 300.0) / 60;
    }
    p.actionPoints = {{19.5, x, 500}};
    Proposal r = make(p);
    ASSERT_EQ(r.skips.size(), 1u);
    EXPECT_NEAR(r.skips[0].start, 5.4, 0.02);
    EXPECT_NEAR(r.skips[0].end, 14.7, 0.02);
    EXPECT_EQ(r.trim, (Trim{0, 20}));
}

TEST(AutoEdit, TheSpeedCheckLooksBackToTheTrimInItself)
{
    // The trim-in falls between ticks (1.004 s; the first tick is 121 at 1.0083 s), and the
    // pointer jumps 10 points in that sliver, then rests. The first ticks measure from the
    // trim-in, so they see the jump: the idle run starts at tick 133, once the 0.1 s window
    // has passed it, not at the first tick.
    Performance p{.duration = 6, .recordedSize = {1000, 1000}};
    p.pointer = {{0, 500, 400}, {1.004, 500, 400}, {121 * tick, 510, 400}, {6, 510, 400}};
    std::vector<Skip> skips = makeSkips(cleaned(p), {}, Trim{1.004, 6});
    ASSERT_EQ(skips.size(), 1u);
    EXPECT_NEAR(skips[0].start, 133 * tick + 0.3, 1e-9);

    // A trim-in exactly on a tick: that tick's speed is the one just after it.
    p.pointer = {{0, 500, 400}, {1.0, 500, 400}, {1.0 + tick, 510, 400}, {6, 510, 400}};
    skips = makeSkips(cleaned(p), {}, Trim{1.0, 6});
    ASSERT_EQ(skips.size(), 1u);
    EXPECT_NEAR(skips[0].start, 1.0 + 13 * tick + 0.3, 1e-9);
}

TEST(AutoEdit, LengthsBeyondADayAreWalkedAsADay)
{
    for (double duration : {1e308, 1e20, longestRecordingSeconds + 1})
        EXPECT_EQ(cleaned(Performance{.duration = duration}).duration, longestRecordingSeconds);
    // The whole walk, once: it ends with the day.
    Performance p{.duration = 1e308, .recordedSize = {1000, 1000}, .pointer = {{0, 1, 1}, {1, 900, 900}}};
    Proposal r = make(p);
    EXPECT_EQ(r.trim.out, longestRecordingSeconds);
    ASSERT_EQ(r.skips.size(), 1u); // one idle stretch from the end of the move to the day's end
    EXPECT_NEAR(r.skips[0].end, r.trim.out - 0.3, 1e-6);
}

TEST(AutoEdit, ClicksClusterByTimeAndDistanceIntoZoomsOffTheSkips)
{
    // Keys keep 8.5-18.5 s busy: no skips in the way. Clicks 100 points apart fit 3x: level 2.4.
    std::vector<double> busy{9, 10, 11, 12, 13, 14, 15, 16, 17, 18};
    std::vector<Zoom> together = make(still(30, busy, {{10, 400, 400}, {12.39, 500, 400}})).zooms;
    ASSERT_EQ(together.size(), 1u);
    expectZoom(together[0], {9.45, 13.34, 2.4, 0.45, 0.4, 2});
    // Clicks join while less than 2.4 s after the last one and 640 points from the centroid.
    const std::vector<std::pair<std::vector<ActionPoint>, std::vector<int>>> clusters = {
        {{{10, 400, 400}, {12.4, 500, 400}}, {1, 1}},
        {{{10, 0, 0}, {11, 100, 0}, {12, 680, 0}}, {3}},
        {{{10, 0, 0}, {11, 100, 0}, {12, 700, 0}}, {2, 1}},
    };
    for (const auto& [clicks, sizes] : clusters) {
        std::vector<int> got;
        for (const Zoom& z : make(still(30, busy, clicks)).zooms)
            got.push_back(z.clicks);
        EXPECT_EQ(got, sizes) << clicks.back().t << ", " << clicks.back().x;
    }

    // Busy 4.5-5.5 and 8.8-9.8: the rest in between is sped up and the zoom starts after it.
    Proposal r = make(still(13, {5, 9.3, 12}, {{9.0, 500, 500}}));
    ASSERT_FALSE(r.skips.empty());
    EXPECT_NEAR(r.skips[0].start, 5.5 + tick + 0.3, 1e-9);
    EXPECT_NEAR(r.skips[0].end, 8.5, 1e-9);
    ASSERT_EQ(r.zooms.size(), 1u);
    expectZoom(r.zooms[0], {8.5, 10.05, 2.4, 0.5, 0.5, 1});
    // A click in the middle of a long rest: its zoom would sit inside the skip and is dropped.
    Proposal idle = make(still(20, {2, 19}, {{10, 500, 500}}));
    EXPECT_EQ(idle.skips.size(), 1u);
    EXPECT_TRUE(idle.zooms.empty());
}

TEST(AutoEdit, ZoomLevelFollowsHowMuchTheClicksSpread)
{
    const std::vector<std::tuple<Subject, double, double>> levels = {{Subject::phone, 1.37, 1.3},
        {Subject::phone, 1.4, 1.4}, {Subject::phone, 1.0, 1.15}, {Subject::phone, 3.0, 1.4},
        {Subject::screen, 2.0, 1.8}, {Subject::window, 2.4, 2.4}, {Subject::area, 1.5, 1.4}, {Subject::screen, 0, 1.4}};
    for (auto [subject, fit, level] : levels)
        EXPECT_EQ(zoomLevel(subject, fit), level) << subjectText(subject) << " " << fit;
    EXPECT_EQ(clusterFit({0, 1080}, 10, 10), 0);

    // Two clicks 230 points apart vertically: fit 2.0, so 1.8 on a screen and 1.4 on a phone;
    // with the size unknown, the default level, centred.
    for (auto [subject, size, level, x] : std::vector<std::tuple<Subject, Size, double, double>>{
             {Subject::screen, {1000, 1000}, 1.8, 0.4}, {Subject::phone, {1000, 1000}, 1.4, 0.4}, {Subject::screen, {}, 1.4, 0.5}}) {
        Performance p = still(30, {11}, {{10, 400, 400}, {11, 400, 630}});
        p.subject = subject;
        p.recordedSize = size;
        std::vector<Zoom> zooms = make(p).zooms;
        ASSERT_EQ(zooms.size(), 1u);
        EXPECT_EQ(zooms[0].level, level) << subjectText(subject);
        EXPECT_EQ(zooms[0].x, x) << subjectText(subject);
    }
}

TEST(AutoEdit, SummaryNamesWhatWasDone)
{
    const std::vector<Skip> skips{{1, 3, 4.0}, {5, 8, 2.5}};
    const std::vector<std::tuple<Proposal, double, bool, bool, std::string>> cases = {
        {{.trim = {0, 10}}, 10, true, false, "Nothing needed editing"},
        {{.trim = {0, 10}}, 10.3, true, false, "Nothing needed editing"},
        {{.trim = {0, 10}}, 10.31, true, false, "ends trimmed"},
        {{{0, 10}, skips, {Zoom{}}}, 10, true, true, "1 zoom where you clicked · dead air 4× faster · cursor smoothed"},
        {{{1, 9}, skips, {Zoom{}, Zoom{}}}, 10, false, false, "2 zooms where you clicked · ends trimmed"},
        {{{1, 9}, {{1, 3, 2.5}}, {Zoom{}, Zoom{}}}, 10, true, false,
            "2 zooms where you clicked · dead air 2.5× faster · ends trimmed"},
    };
    for (const auto& [proposal, duration, deadAir, smoothed, line] : cases)
        EXPECT_EQ(summary(proposal, duration, deadAir, smoothed), line);

    // Only a recording with a pointer that is drawn has it smoothed: a phone's has none.
    Performance moving = still(2);
    EXPECT_TRUE(pointerSmoothed(moving));
    moving.subject = Subject::phone;
    EXPECT_FALSE(pointerSmoothed(moving));
    EXPECT_FALSE(pointerSmoothed(Performance{.duration = 10}));
    EXPECT_EQ(summary({.trim = {0, 10}}, 10, true, pointerSmoothed(Performance{.duration = 10})),
        "Nothing needed editing");
    for (auto [speed, label] : std::vector<std::pair<double, std::string>>{
             {4, "4×"}, {16, "16×"}, {1.5, "1.5×"}, {3.14, "3.1×"}, {NAN, "?×"}})
        EXPECT_EQ(speedLabel(speed), label);
}

TEST(AutoEdit, PerformanceComesFromTheCursorAndKeystrokeTracks)
{
    CursorTrack track{.displayX = 100, .displayY = 50, .displayWidth = 1000, .displayHeight = 500,
        .samples = {{0, 600, 300, 0}, {16, 601, 300, 1}, {33, 2000, -10, 0}}, .clicks = {{1500, 350, 175}}};
    KeystrokeTrack keys{{KeyEvent{2500, "⌘S"}}};
    // Outside the region a sample is clamped to its edge; typing samples count as key presses.
    EXPECT_EQ(performance(track, &keys, {{3, 4}}, 12.5),
        (Performance{12.5, Subject::screen, {1000, 500}, {{0, 500, 250}, {0.016, 501, 250}, {0.033, 1000, 0}},
            {0.016, 2.5}, {{1.5, 250, 125}}, {{3, 4}}}));
    EXPECT_EQ(performance(track, nullptr, {}, NAN).duration, 0);

    // A window that moved: positions are taken inside the window's frame at that time.
    track.frames = {{1000, 300, 250, 500, 250}};
    track.clicks = {{500, 350, 175}, {1500, 350, 375}};
    Performance w = performance(track, nullptr, {}, 5);
    EXPECT_EQ(w.subject, Subject::window);
    EXPECT_EQ(w.actionPoints, (std::vector<ActionPoint>{{0.5, 250, 125}, {1.5, 100, 250}}));
    EXPECT_EQ(performance(track, nullptr, {}, 5, Subject::area).subject, Subject::area);
    EXPECT_EQ(performance(CursorTrack::deviceTrack(1170, 2532), nullptr, {}, 5).subject, Subject::phone);
}

TEST(AutoEdit, ResultEntersAPlan)
{
    EditPlan plan = AutoEdit::plan({{1.25, 40}, {{5, 9, 4.0}}, {{12, 15, 1.8, 0.25, 0.75, 3}}});
    ASSERT_EQ(plan.zooms.size(), 1u);
    EXPECT_TRUE(isUuid(plan.zooms[0].id));
    EXPECT_EQ(plan, (EditPlan{.zooms = {{plan.zooms[0].id, 12, 15, 0.25, 0.75, 1.8, ZoomBlock::Origin::clickCluster(3)}},
                        .skips = {{{5, 9}, false, 4.0}}, .trimIn = 1.25, .trimOut = 40}));
    // 1.25..40 with 4 s at 4x.
    EXPECT_DOUBLE_EQ(TimeRemap::of(plan, 50).outputDuration(50), 38.75 - 3);
}
