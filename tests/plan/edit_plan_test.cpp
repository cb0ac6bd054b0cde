// Steps, segments, removed spans, played skips, masks and transition phases of the plan.

#include "plan/edit_plan.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace plim;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

RemapStep cutStep(double a, double b) { return {{a, b}, RemapMode::cut()}; }
RemapStep rateStep(double a, double b, double r) { return {{a, b}, RemapMode::rate(r)}; }

CutRange cut(double a, double b, std::optional<TransitionSpec> t = std::nullopt)
{
    return CutRange{"11111111-2222-4333-8444-555555555555", a, b, t};
}

SkipDecision skip(double a, double b, double rate = 4.0, bool keep = false) { return {{a, b}, keep, rate}; }

void expectSteps(const std::vector<RemapStep>& got, const std::vector<RemapStep>& want)
{
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].mode, want[i].mode) << "step " << i;
        EXPECT_NEAR(got[i].span.start, want[i].span.start, 1e-9) << "step " << i;
        EXPECT_NEAR(got[i].span.end, want[i].span.end, 1e-9) << "step " << i;
    }
}

} // namespace

TEST(EditPlanSteps, CutsAreClampedMergedAndFiltered)
{
    EditPlan plan;
    plan.cuts = {cut(5, 3), cut(40, 50), cut(-2, 1), cut(10, 12), cut(12 + 5e-7, 14), cut(13, 13.5),
        cut(kNaN, 20), cut(21, kInf), cut(25, 25 + 5e-7)};
    // Reversed, wholly beyond the recording, non-finite and tiny cuts give nothing; touching
    // and overlapping cuts merge.
    expectSteps(plan.steps(30), {cutStep(0, 1), cutStep(10, 14)});
    EXPECT_TRUE(plan.steps(0).empty());
    EXPECT_TRUE(plan.steps(-1).empty());
    EXPECT_TRUE(plan.steps(kNaN).empty());
    EXPECT_TRUE(plan.steps(kInf).empty());
}

TEST(EditPlanSteps, TrimsRemoveTheEnds)
{
    EditPlan plan;
    plan.trimIn = 2;
    plan.trimOut = 18;
    expectSteps(plan.steps(20), {cutStep(0, 2), cutStep(18, 20)});

    EditPlan zeroOut;
    zeroOut.trimOut = 0;
    expectSteps(zeroOut.steps(20), {cutStep(0, 20)});
    zeroOut.trimOut = -3;
    expectSteps(zeroOut.steps(20), {cutStep(0, 20)});

    EditPlan late;
    late.trimIn = 25;
    expectSteps(late.steps(20), {cutStep(0, 20)});
    late.trimIn = -1;
    late.trimOut = 40;
    EXPECT_TRUE(late.steps(20).empty());
    late.trimIn = kNaN;
    late.trimOut = kNaN;
    EXPECT_TRUE(late.steps(20).empty());
}

TEST(EditPlanSteps, SkipsAreCutApartByRemovedSpans)
{
    EditPlan plan;
    plan.cuts = {cut(10, 12)};
    plan.trimIn = 1;
    plan.skips = {
        skip(8, 15, 3),          // across the cut: both sides
        skip(10.5, 11.5),        // inside the cut: nothing
        skip(0, 4, 2),           // across the trim: the right part
        skip(20, 22, 5, true),   // kept: plays at speed 1
        skip(24, 23),            // reversed
        skip(25, 26, -1),        // negative rate
        skip(26, 27, kNaN),       // no rate
        skip(27, 28, 0),         // rate 0 is not below 0
        skip(28, 40, 6),         // runs past the end: clamped
    };
    expectSteps(plan.steps(30), {cutStep(0, 1), rateStep(1, 4, 2), rateStep(8, 10, 3), cutStep(10, 12),
        rateStep(12, 15, 3), rateStep(27, 28, 0), rateStep(28, 30, 6)});
}

TEST(EditPlanSteps, SkipAcrossTwoMergedCutsKeepsOnlyWhatPlays)
{
    EditPlan plan;
    plan.cuts = {cut(4, 6), cut(6, 7), cut(9, 9.5)};
    plan.skips = {skip(3, 10)};
    expectSteps(plan.steps(12),
        {rateStep(3, 4, 4), cutStep(4, 7), rateStep(7, 9, 4), cutStep(9, 9.5), rateStep(9.5, 10, 4)});
    // Leftover slivers no longer than 1e-6 s are not steps.
    plan.skips = {skip(4 - 5e-7, 7 + 5e-7)};
    expectSteps(plan.steps(12), {cutStep(4, 7), cutStep(9, 9.5)});
}

TEST(EditPlanSteps, ClipsReplaceTrimsAndCuts)
{
    EditPlan plan;
    plan.trimIn = 5;
    plan.trimOut = 6;
    plan.cuts = {cut(1, 2)};
    plan.clips = std::vector<PlimClip>{
        {PlimClip::idForNumber(2), 12, 30},  // clamped to the end
        {PlimClip::idForNumber(1), 2, 8},
        {PlimClip::idForNumber(3), 14, 14},  // empty
        {PlimClip::idForNumber(4), 7, 9},    // overlaps the one before
    };
    plan.skips = {skip(8.5, 13)};
    expectSteps(plan.steps(20), {cutStep(0, 2), rateStep(8.5, 9, 4), cutStep(9, 12), rateStep(12, 13, 4)});

    // Clips that all sanitise away leave nothing to play.
    plan.clips = std::vector<PlimClip>{{PlimClip::idForNumber(1), 25, 30}};
    expectSteps(plan.steps(20), {cutStep(0, 20)});
    // An empty clip list falls back to trims and cuts.
    plan.clips = std::vector<PlimClip>{};
    expectSteps(plan.steps(20), {cutStep(0, 5), cutStep(6, 20)});
}

TEST(EditPlanQueries, SegmentsAndRemovedSpans)
{
    EditPlan plan;
    plan.trimIn = 1;
    plan.trimOut = 19;
    plan.cuts = {cut(5, 7), cut(7, 8), cut(12, 13)};
    plan.skips = {skip(2, 3)};

    auto segments = plan.segments(20);
    ASSERT_EQ(segments.size(), 3u);
    EXPECT_EQ(segments[0], (EditPlan::Segment{1, 5}));
    EXPECT_EQ(segments[1], (EditPlan::Segment{8, 12}));
    EXPECT_EQ(segments[2], (EditPlan::Segment{13, 19}));
    EXPECT_EQ(segments[1].identity(), "segment-8000-12000");
    EXPECT_NE(segments[0].identity(), segments[2].identity());

    std::vector<IdleSpan> removed{{0, 1}, {5, 8}, {12, 13}, {19, 20}};
    EXPECT_EQ(plan.removedSpans(20), removed);
    EXPECT_EQ(plan.droppedAudioSpans(20), removed);

    EditPlan whole;
    auto all = whole.segments(7.5);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0], (EditPlan::Segment{0, 7.5}));
    EXPECT_TRUE(whole.segments(kNaN).empty());
    whole.trimOut = 0;
    EXPECT_TRUE(whole.segments(7.5).empty());
}

TEST(EditPlanQueries, SegmentsWithClipsMergeAdjacentClips)
{
    EditPlan plan;
    plan.clips = std::vector<PlimClip>{{PlimClip::idForNumber(1), 2, 4}, {PlimClip::idForNumber(2), 4, 6},
        {PlimClip::idForNumber(3), 8, 9}};
    auto segments = plan.segments(10);
    ASSERT_EQ(segments.size(), 2u);
    EXPECT_EQ(segments[0], (EditPlan::Segment{2, 6}));
    EXPECT_EQ(segments[1], (EditPlan::Segment{8, 9}));
}

TEST(EditPlanQueries, ActiveSkipsKeepStoredOrder)
{
    EditPlan plan;
    plan.skips = {skip(9, 10, 2), skip(1, 2, 3, true), skip(4, 5, 8)};
    EXPECT_EQ(plan.activeSkips(), (std::vector<IdleSpan>{{9, 10}, {4, 5}}));
    auto segments = plan.activeSegments();
    ASSERT_EQ(segments.size(), 2u);
    EXPECT_EQ(segments[0], (EditPlan::RateSegment{{9, 10}, 2}));
    EXPECT_EQ(segments[1], (EditPlan::RateSegment{{4, 5}, 8}));
    EXPECT_EQ(plan.skips[0].identity(), "skip-9000");
    EXPECT_EQ(skip(1.2349, 2).identity(), "skip-1234");
    EXPECT_EQ(skip(-0.0019, 2).identity(), "skip--1");
}

TEST(EditPlanQueries, PlayedSkipsCarryTheirOutputStart)
{
    EditPlan plan;
    plan.trimIn = 2;
    plan.cuts = {cut(10, 14)};
    plan.skips = {
        skip(4, 8, 4),            // 2 s of plain time before it
        skip(11, 13),             // wholly inside the cut
        skip(12, 18, 2),          // starts inside the cut: plays from 14
        skip(0, 1),               // wholly inside the trim
        skip(20, 21, 4, true),    // kept, still plays
    };
    auto played = plan.playedSkips(30);
    ASSERT_EQ(played.size(), 3u);
    EXPECT_EQ(played[0].skip, plan.skips[0]);
    EXPECT_NEAR(played[0].outputStart, 2, 1e-9);
    // [2,4] plain (2) + [4,8] at 4 (1) + [8,10] plain (2) = 5; the cut adds nothing.
    EXPECT_EQ(played[1].skip, plan.skips[2]);
    EXPECT_NEAR(played[1].outputStart, 5, 1e-9);
    // Then [14,18] at 2 (2) + [18,20] plain (2).
    EXPECT_EQ(played[2].skip, plan.skips[4]);
    EXPECT_NEAR(played[2].outputStart, 9, 1e-9);
}

TEST(EditPlanQueries, PlayedSkipsFollowTheClipOrder)
{
    EditPlan plan;
    // The later stretch plays first.
    plan.clips = std::vector<PlimClip>{{PlimClip::idForNumber(1), 10, 20}, {PlimClip::idForNumber(2), 0, 5}};
    plan.skips = {skip(2, 4, 2), skip(12, 16, 4)};
    auto played = plan.playedSkips(20);
    ASSERT_EQ(played.size(), 2u);
    // The first clip lasts 2 + 4/4 + 4 = 7 s; the skip is 2 s into the second.
    EXPECT_NEAR(played[0].outputStart, 9, 1e-9);
    EXPECT_NEAR(played[1].outputStart, 2, 1e-9);
}

TEST(EditPlanQueries, MasksAtHalfOpenTimes)
{
    EditPlan plan;
    plan.masks = {MaskRegion{"A0000000-0000-4000-8000-000000000001", 0.1, 0.1, 0.2, 0.2, 1, 3, MaskRegion::Style::blur},
        MaskRegion{"A0000000-0000-4000-8000-000000000002", 0.5, 0.5, 0.2, 0.2, 2, 4, MaskRegion::Style::pixelate}};
    EXPECT_TRUE(plan.masksAt(0.99).empty());
    ASSERT_EQ(plan.masksAt(1).size(), 1u);
    ASSERT_EQ(plan.masksAt(2.5).size(), 2u);
    EXPECT_EQ(plan.masksAt(2.5)[0].id, plan.masks[0].id);
    ASSERT_EQ(plan.masksAt(3).size(), 1u);
    EXPECT_EQ(plan.masksAt(3)[0].id, plan.masks[1].id);
    EXPECT_TRUE(plan.masksAt(4).empty());
    EXPECT_TRUE(plan.masksAt(kNaN).empty());
}

TEST(EditPlanQueries, MaskRectIsClippedToTheUnitSquare)
{
    MaskRegion mask{"A0000000-0000-4000-8000-000000000001", -0.2, 0.9, 0.5, 0.3, 0, 1, MaskRegion::Style::blur};
    auto r = mask.rect();
    EXPECT_DOUBLE_EQ(r.x, 0);
    EXPECT_DOUBLE_EQ(r.width, 0.3);
    EXPECT_DOUBLE_EQ(r.y, 0.9);
    EXPECT_NEAR(r.height, 0.1, 1e-12);
    mask.x = 1.5;
    EXPECT_EQ(mask.rect().width, 0);
    mask.w = -0.3;
    mask.x = 0.5;
    EXPECT_EQ(mask.rect().width, 0);
    mask.h = kNaN;
    EXPECT_EQ(mask.rect(), MaskRegion::Rect{});
}

TEST(EditPlanQueries, SuspendingLeavesOneZoomOut)
{
    EditPlan plan;
    ZoomBlock a{"B0000000-0000-4000-8000-00000000000A", 1, 2, 0.5, 0.5, 2, ZoomBlock::Origin::mark(), std::nullopt};
    ZoomBlock b = a;
    b.id = "B0000000-0000-4000-8000-00000000000B";
    plan.zooms = {a, b};
    auto copy = plan.suspending("b0000000-0000-4000-8000-00000000000a");
    ASSERT_EQ(copy.zooms.size(), 1u);
    EXPECT_EQ(copy.zooms[0], b);
    EXPECT_EQ(plan.zooms.size(), 2u);
    EXPECT_EQ(plan.suspending("nothing"), plan);
}

TEST(EditPlanTransition, CutTransitionsRiseAndFall)
{
    EditPlan plan;
    plan.cuts = {cut(10, 12, TransitionSpec{TransitionSpec::Kind::blur, 0.4})};
    EXPECT_FALSE(plan.transition(9.7, 30));
    EXPECT_NEAR(plan.transition(9.8, 30)->phase, 0, 1e-9);
    EXPECT_NEAR(plan.transition(9.9, 30)->phase, 0.5, 1e-9);
    EXPECT_EQ(plan.transition(9.9, 30)->kind, TransitionSpec::Kind::blur);
    EXPECT_FALSE(plan.transition(11, 30)); // inside the cut
    EXPECT_NEAR(plan.transition(12, 30)->phase, 1, 1e-9);
    EXPECT_NEAR(plan.transition(12.15, 30)->phase, 0.25, 1e-9);
    EXPECT_FALSE(plan.transition(12.2, 30));
    EXPECT_FALSE(plan.transition(kNaN, 30));
    EXPECT_FALSE(plan.transition(9.9, kNaN));
    EXPECT_FALSE(plan.transition(9.9, -1));
}

TEST(EditPlanTransition, DurationsAreClamped)
{
    EditPlan plan;
    plan.cuts = {cut(10, 12, TransitionSpec{TransitionSpec::Kind::punch, 5})};
    EXPECT_NEAR(plan.transition(9.5, 30)->phase, 0, 1e-9); // 0.5 s each side
    EXPECT_NEAR(plan.transition(12.25, 30)->phase, 0.5, 1e-9);
    EXPECT_FALSE(plan.transition(12.5, 30));

    plan.cuts = {cut(10, 12, TransitionSpec{TransitionSpec::Kind::punch, 0.02})};
    EXPECT_NEAR(plan.transition(9.975, 30)->phase, 0.5, 1e-9); // 0.05 s each side
    EXPECT_FALSE(plan.transition(9.94, 30));

    plan.cuts = {cut(10, 12, TransitionSpec{TransitionSpec::Kind::punch, kNaN})};
    EXPECT_NEAR(plan.transition(12.0875, 30)->phase, 0.5, 1e-9); // 0.175 s each side

    // Cuts without a transition or without length have none.
    plan.cuts = {cut(10, 12), cut(15, 15, TransitionSpec{})};
    EXPECT_FALSE(plan.transition(9.9, 30));
    EXPECT_FALSE(plan.transition(15, 30));
    EXPECT_FALSE(plan.transition(14.9, 30));
}

TEST(EditPlanTransition, GreatestPhaseWinsAndTiesKeepTheEarlierCut)
{
    EditPlan plan;
    plan.cuts = {cut(10, 11, TransitionSpec{TransitionSpec::Kind::blur, 1.0}),
        cut(11.2, 12, TransitionSpec{TransitionSpec::Kind::punch, 1.0})};
    // At 11.1: after the first (phase 0.8), before the second (phase 0.8): the first stays.
    EXPECT_EQ(plan.transition(11.1, 30)->kind, TransitionSpec::Kind::blur);
    // At 11.15: 0.7 against 0.9.
    EXPECT_EQ(plan.transition(11.15, 30)->kind, TransitionSpec::Kind::punch);
    EXPECT_NEAR(plan.transition(11.15, 30)->phase, 0.9, 1e-9);
}

TEST(EditPlanTransition, FadesAtTheTrimmedEnds)
{
    EditPlan plan;
    plan.trimIn = 2;
    plan.trimOut = 8;
    plan.fadeIn = TransitionSpec{TransitionSpec::Kind::dipToBlack, 0.5};
    plan.fadeOut = TransitionSpec{TransitionSpec::Kind::dipToBackdrop, 0.5};
    EXPECT_FALSE(plan.transition(1.9, 10));
    EXPECT_NEAR(plan.transition(2, 10)->phase, 1, 1e-9);
    EXPECT_NEAR(plan.transition(2.25, 10)->phase, 0.5, 1e-9);
    EXPECT_FALSE(plan.transition(2.5, 10));
    EXPECT_EQ(plan.transition(7.75, 10)->kind, TransitionSpec::Kind::dipToBackdrop);
    EXPECT_NEAR(plan.transition(7.75, 10)->phase, 0.5, 1e-9);
    EXPECT_FALSE(plan.transition(8, 10));

    // Without trims the fades sit at the recording's ends; a trim-out past the end is ignored.
    plan.trimIn.reset();
    plan.trimOut = 50;
    EXPECT_NEAR(plan.transition(0, 10)->phase, 1, 1e-9);
    EXPECT_NEAR(plan.transition(9.75, 10)->phase, 0.5, 1e-9);
    // A fade never lasts longer than the recording.
    EXPECT_NEAR(plan.transition(0.05, 0.2)->phase, 0.75, 1e-9);
}

TEST(EditPlanTransition, FadesTiedWithACutReportTheCut)
{
    EditPlan plan;
    plan.fadeIn = TransitionSpec{TransitionSpec::Kind::dipToBlack, 0.5};
    plan.fadeOut = TransitionSpec{TransitionSpec::Kind::dipToBackdrop, 0.5};
    plan.cuts = {cut(0.5, 1, TransitionSpec{TransitionSpec::Kind::punch, 1.0}),
        cut(9, 9.5, TransitionSpec{TransitionSpec::Kind::blur, 1.0})};
    // Exactly 0.5 each: the cut rising into [0.5, 1] against the fade-in, the cut falling
    // after [9, 9.5] against the fade-out.
    auto start = plan.transition(0.25, 10);
    ASSERT_TRUE(start);
    EXPECT_EQ(start->kind, TransitionSpec::Kind::punch);
    EXPECT_EQ(start->phase, 0.5);
    auto end = plan.transition(9.75, 10);
    ASSERT_TRUE(end);
    EXPECT_EQ(end->kind, TransitionSpec::Kind::blur);
    EXPECT_EQ(end->phase, 0.5);
    // A little later the fade-out is stronger and replaces the cut.
    EXPECT_EQ(plan.transition(9.875, 10)->kind, TransitionSpec::Kind::dipToBackdrop);
    EXPECT_EQ(plan.transition(0.125, 10)->kind, TransitionSpec::Kind::dipToBlack);
}
