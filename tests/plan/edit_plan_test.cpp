// Steps, segments, removed spans, played skips, masks and transition phases of the plan; clips and their timeline.

#include "plan/edit_plan.h"
#include "plan/plim_clip.h"
#include "plan/time_remap.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <tuple>

using namespace plim;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
using K = TransitionSpec::Kind;

RemapStep cutStep(double a, double b) { return {{a, b}, RemapMode::cut()}; }
RemapStep rateStep(double a, double b, double r) { return {{a, b}, RemapMode::rate(r)}; }

CutRange cut(double a, double b, std::optional<TransitionSpec> t = std::nullopt)
{
    return CutRange{"11111111-2222-4333-8444-555555555555", a, b, t};
}

CutRange fadedCut(double a, double b, K kind, double duration) { return cut(a, b, TransitionSpec{kind, duration}); }
SkipDecision skip(double a, double b, double rate = 4.0, bool keep = false) { return {{a, b}, keep, rate}; }
PlimClip clip(int n, double a, double b) { return {PlimClip::idForNumber(n), a, b}; }

} // namespace

TEST(EditPlan, CutsTrimsSkipsAndClipsBecomeSortedSteps)
{
    struct Case { const char* what; EditPlan plan; double raw; std::vector<RemapStep> want; };
    const EditPlan messy{.cuts = {cut(5, 3), cut(40, 50), cut(-2, 1), cut(10, 12), cut(12 + 5e-7, 14), cut(13, 13.5),
                             cut(kNaN, 20), cut(21, kInf), cut(25, 25 + 5e-7)}};
    const std::vector<Case> cases = {
        {"reversed, outside, non-finite and tiny cuts go; touching ones merge", messy, 30,
            {cutStep(0, 1), cutStep(10, 14)}},
        {"no length", messy, 0, {}}, {"negative length", messy, -1, {}}, {"NaN length", messy, kNaN, {}},
        {"endless", messy, kInf, {}},
        {"trims", {.trimIn = 2, .trimOut = 18}, 20, {cutStep(0, 2), cutStep(18, 20)}},
        {"trim-out at 0", {.trimOut = 0}, 20, {cutStep(0, 20)}},
        {"trim-out below 0", {.trimOut = -3}, 20, {cutStep(0, 20)}},
        {"trim-in past the end", {.trimIn = 25}, 20, {cutStep(0, 20)}},
        {"trims outside the recording", {.trimIn = -1, .trimOut = 40}, 20, {}},
        {"NaN trims", {.trimIn = kNaN, .trimOut = kNaN}, 20, {}},
        {"skips cut apart by cuts and trims",
            {.skips = {skip(8, 15, 3), skip(10.5, 11.5), skip(0, 4, 2), skip(20, 22, 5, true), skip(24, 23),
                 skip(25, 26, -1), skip(26, 27, kNaN), skip(27, 28, 0), skip(28, 40, 6)},
                .trimIn = 1, .cuts = {cut(10, 12)}},
            30,
            {cutStep(0, 1), rateStep(1, 4, 2), rateStep(8, 10, 3), cutStep(10, 12), rateStep(12, 15, 3),
                rateStep(27, 28, 0), rateStep(28, 30, 6)}},
        {"a skip across merged cuts", {.skips = {skip(3, 10)}, .cuts = {cut(4, 6), cut(6, 7), cut(9, 9.5)}}, 12,
            {rateStep(3, 4, 4), cutStep(4, 7), rateStep(7, 9, 4), cutStep(9, 9.5), rateStep(9.5, 10, 4)}},
        {"slivers of 1e-6 s are no steps", {.skips = {skip(4 - 5e-7, 7 + 5e-7), skip(9, 9 + 5e-7)}, .cuts = {cut(4, 7)}}, 12,
            {cutStep(4, 7)}},
        {"clips replace trims and cuts",
            {.skips = {skip(8.5, 13)}, .trimIn = 5, .trimOut = 6, .cuts = {cut(1, 2)},
                .clips = std::vector{clip(2, 12, 30), clip(1, 2, 8), clip(3, 14, 14), clip(4, 7, 9)}},
            20, {cutStep(0, 2), rateStep(8.5, 9, 4), cutStep(9, 12), rateStep(12, 13, 4)}},
        {"clips that sanitise away", {.clips = std::vector{clip(1, 25, 30)}}, 20, {cutStep(0, 20)}},
        {"an empty clip list", {.trimIn = 5, .trimOut = 6, .clips = std::vector<PlimClip>{}}, 20,
            {cutStep(0, 5), cutStep(6, 20)}},
    };
    // Every bound is one of the given times, 0 or the length: no arithmetic to round.
    for (const Case& c : cases)
        EXPECT_EQ(c.plan.steps(c.raw), c.want) << c.what;
}

TEST(EditPlan, SegmentsRemovedSpansAndActiveSkips)
{
    EditPlan plan{.skips = {skip(9, 10, 2), skip(1, 2, 3, true), skip(4, 5, 8)}, .trimIn = 1, .trimOut = 19,
        .cuts = {cut(5, 7), cut(7, 8), cut(12, 13)}};
    using Segment = EditPlan::Segment;
    EXPECT_EQ(plan.segments(20), (std::vector<Segment>{{1, 5}, {8, 12}, {13, 19}}));
    EXPECT_EQ((Segment{8, 12}).identity(), "segment-8000-12000");
    EXPECT_EQ(plan.removedSpans(20), (std::vector<IdleSpan>{{0, 1}, {5, 8}, {12, 13}, {19, 20}}));
    EXPECT_EQ(EditPlan{}.segments(7.5), (std::vector<Segment>{{0, 7.5}}));
    EXPECT_TRUE(EditPlan{}.segments(kNaN).empty());
    EXPECT_TRUE(EditPlan{.trimOut = 0}.segments(7.5).empty());
    EditPlan clipped{.clips = std::vector{clip(1, 2, 4), clip(2, 4, 6), clip(3, 8, 9)}};
    EXPECT_EQ(clipped.segments(10), (std::vector<Segment>{{2, 6}, {8, 9}}));

    // Active skips keep their stored order; identities are whole milliseconds, truncated.
    EXPECT_EQ(plan.activeSkips(), (std::vector<IdleSpan>{{9, 10}, {4, 5}}));
    EXPECT_EQ(plan.activeSegments(), (std::vector<EditPlan::RateSegment>{{{9, 10}, 2}, {{4, 5}, 8}}));
    EXPECT_EQ(plan.skips[0].identity(), "skip-9000");
    EXPECT_EQ(skip(1.2349, 2).identity(), "skip-1234");
    EXPECT_EQ(skip(-0.0019, 2).identity(), "skip--1");
}

TEST(EditPlan, SkipsAreDescribedAsTheyPlay)
{
    // {skips, segments reported, output length of 20 s of recording}
    const double inf = std::numeric_limits<double>::infinity();
    using Row = std::tuple<std::vector<SkipDecision>, std::vector<EditPlan::RateSegment>, double>;
    for (const auto& [skips, reported, output] : std::vector<Row>{
             // A rate the remap cannot play leaves the stretch at normal speed, and says so.
             {{skip(2, 6, 0)}, {{{2, 6}, 1}}, 20},
             {{skip(2, 6, -3), skip(8, 10, kNaN), skip(11, 12, inf)}, {{{2, 6}, 1}, {{8, 10}, 1}, {{11, 12}, 1}}, 20},
             // Overlapping active skips: the earlier one plays whole, the later from its end.
             {{skip(4, 8, 4), skip(6, 10, 2)}, {{{4, 8}, 4}, {{6, 10}, 2}}, 20 - 4 + 1 - 2 + 1},
             {{skip(6, 10, 2), skip(4, 8, 4)}, {{{6, 10}, 2}, {{4, 8}, 4}}, 20 - 4 + 1 - 2 + 1},
         }) {
        EditPlan plan{.skips = skips};
        EXPECT_EQ(plan.activeSegments(), reported);
        EXPECT_DOUBLE_EQ(TimeRemap::of(plan, 20).outputDuration(20), output);
    }
}

TEST(EditPlan, PlayedSkipsCarryTheirOutputStartInPlayingOrder)
{
    EditPlan plan{.skips = {skip(4, 8, 4), skip(11, 13), skip(12, 18, 2), skip(0, 1), skip(20, 21, 4, true)},
        .trimIn = 2, .cuts = {cut(10, 14)}};
    // Inside the cut or the trim: not played. [2,4] plain = 2; + [4,8] at 4 + [8,10] = 5; the
    // skip starting inside the cut plays from 14; + [14,18] at 2 + [18,20] = 9 for the kept one.
    using Played = std::vector<EditPlan::PlayedSkip>;
    EXPECT_EQ(plan.playedSkips(30), (Played{{plan.skips[0], 2}, {plan.skips[2], 5}, {plan.skips[4], 9}}));
    ClipTimeline timeline = plan.clipTimeline(30);
    EXPECT_EQ(timeline.pieces.size(), 2u);
    EXPECT_EQ(timeline.pieces[1].id, "segment-14000-30000");
    EXPECT_DOUBLE_EQ(timeline.outputDuration(), 19);
    // The later stretch plays first and lasts 2 + 4/4 + 4 = 7 s.
    EditPlan reordered{.skips = {skip(2, 4, 2), skip(12, 16, 4)}, .clips = std::vector{clip(1, 10, 20), clip(2, 0, 5)}};
    EXPECT_EQ(reordered.playedSkips(20), (Played{{reordered.skips[0], 9}, {reordered.skips[1], 2}}));
    EXPECT_EQ(reordered.clipTimeline(20).pieces[0].id, PlimClip::idForNumber(1));
    EXPECT_DOUBLE_EQ(reordered.clipTimeline(20).outputDuration(), 7 + 4);
}

TEST(EditPlan, MasksZoomsAndSuspending)
{
    const std::string a = "A0000000-0000-4000-8000-000000000001", b = "A0000000-0000-4000-8000-000000000002";
    EditPlan plan{.masks = {{a, 0.1, 0.1, 0.2, 0.2, 1, 3, MaskRegion::Style::blur},
                      {b, 0.5, 0.5, 0.2, 0.2, 2, 4, MaskRegion::Style::pixelate}}};
    // Masks show from start up to, not at, their end.
    const std::vector<std::pair<double, std::vector<std::string>>> shown = {
        {0.99, {}}, {1, {a}}, {2.5, {a, b}}, {3, {b}}, {4, {}}, {kNaN, {}}};
    for (const auto& [t, ids] : shown) {
        std::vector<std::string> got;
        for (const auto& mask : plan.masksAt(t))
            got.push_back(mask.id);
        EXPECT_EQ(got, ids) << t;
    }

    // Boxes are clipped to the unit square; a non-finite one is empty at the origin.
    const std::vector<std::pair<std::array<double, 4>, Rect>> rects = {
        {{-0.2, 0.9, 0.5, 0.3}, {0, 0.9, 0.3, 0.1}}, {{1.5, 0.9, 0.5, 0.3}, {1, 0.9, 0, 0.1}},
        {{0.5, 0.9, -0.3, 0.3}, {0.5, 0.9, 0, 0.1}}, {{0.5, 0.9, 0.2, kNaN}, {}}};
    for (const auto& [box, want] : rects) {
        auto r = MaskRegion{a, box[0], box[1], box[2], box[3], 0, 1, MaskRegion::Style::blur}.rect();
        EXPECT_LT(std::abs(r.x - want.x) + std::abs(r.y - want.y) + std::abs(r.width - want.width)
                + std::abs(r.height - want.height), 1e-12) << box[0] << ", " << box[2] << ", " << box[3];
    }

    ZoomBlock first{"B0000000-0000-4000-8000-00000000000A", 1, 2, 0.5, 0.5, 2, ZoomBlock::Origin::mark(), std::nullopt};
    ZoomBlock second = first;
    second.id = "B0000000-0000-4000-8000-00000000000B";
    plan.zooms = {first, second};
    EXPECT_EQ(plan.suspending("b0000000-0000-4000-8000-00000000000a").zooms, std::vector{second});
    EXPECT_EQ(plan.suspending("nothing"), plan);
}

TEST(EditPlan, TransitionsRiseTowardCutsAndFadesAndTheStrongestWins)
{
    constexpr double none = -1;
    struct Probe { double t; double phase; K kind = K::dipToBlack; double raw = 30; };
    struct Case { const char* what; EditPlan plan; std::vector<Probe> probes; };
    const TransitionSpec black{K::dipToBlack, 0.5}, backdrop{K::dipToBackdrop, 0.5};
    const std::vector<Case> cases = {
        {"a blur of 0.4 s, 0.2 s each side", {.cuts = {fadedCut(10, 12, K::blur, 0.4)}},
            {{9.7, none}, {9.8, 0, K::blur}, {9.9, 0.5, K::blur}, {11, none}, {12, 1, K::blur},
                {12.15, 0.25, K::blur}, {12.2, none}, {kNaN, none}, {9.9, none, K::blur, kNaN}, {9.9, none, K::blur, -1}}},
        {"durations clamp to 1 s", {.cuts = {fadedCut(10, 12, K::punch, 5)}},
            {{9.5, 0, K::punch}, {12.25, 0.5, K::punch}, {12.5, none}}},
        {"and to 0.1 s", {.cuts = {fadedCut(10, 12, K::punch, 0.02)}}, {{9.975, 0.5, K::punch}, {9.94, none}}},
        {"NaN reads 0.35 s", {.cuts = {fadedCut(10, 12, K::punch, kNaN)}}, {{12.0875, 0.5, K::punch}}},
        {"no transition or no length", {.cuts = {cut(10, 12), cut(15, 15, TransitionSpec{})}},
            {{9.9, none}, {15, none}, {14.9, none}}},
        {"greatest phase wins; a tie keeps the earlier cut",
            {.cuts = {fadedCut(10, 11, K::blur, 1), fadedCut(11.2, 12, K::punch, 1)}},
            {{11.1, 0.8, K::blur}, {11.15, 0.9, K::punch}}},
        {"fades at the trimmed ends", {.trimIn = 2, .trimOut = 8, .fadeIn = black, .fadeOut = backdrop},
            {{1.9, none}, {2, 1, K::dipToBlack, 10}, {2.25, 0.5, K::dipToBlack, 10}, {2.5, none, {}, 10},
                {7.75, 0.5, K::dipToBackdrop, 10}, {8, none, {}, 10}}},
        {"fades at the recording's ends; no longer than it", {.trimOut = 50, .fadeIn = black, .fadeOut = backdrop},
            {{0, 1, K::dipToBlack, 10}, {9.75, 0.5, K::dipToBackdrop, 10}, {0.05, 0.75, K::dipToBlack, 0.2}}},
        {"a fade tied with a cut reports the cut",
            {.cuts = {fadedCut(0.5, 1, K::punch, 1), fadedCut(9, 9.5, K::blur, 1)}, .fadeIn = black, .fadeOut = backdrop},
            {{0.25, 0.5, K::punch, 10}, {9.75, 0.5, K::blur, 10}, {9.875, 0.75, K::dipToBackdrop, 10},
                {0.125, 0.75, K::dipToBlack, 10}}},
    };
    for (const Case& c : cases) {
        for (const Probe& p : c.probes) {
            SCOPED_TRACE(std::string(c.what) + " at " + std::to_string(p.t) + " of " + std::to_string(p.raw));
            auto got = c.plan.transition(p.t, p.raw);
            if (p.phase == none) {
                EXPECT_FALSE(got);
                continue;
            }
            ASSERT_TRUE(got);
            EXPECT_NEAR(got->phase, p.phase, 1e-9);
            EXPECT_EQ(got->kind, p.kind);
        }
    }
}

TEST(PlimClip, NumberedIdsAndSanitising)
{
    for (auto [number, tail] : std::vector<std::pair<long long, std::string>>{
             {7, "000000000007"}, {123456789012, "123456789012"}, {-4, "000000000000"}, {10'000'000'000'000, "999999999999"}})
        EXPECT_EQ(PlimClip::idForNumber(number), "7A4E0C11-0000-4000-8000-" + tail);

    const std::string id = PlimClip::idForNumber(1);
    struct Row { double start, end, raw; std::optional<PlimClip> want; };
    const std::vector<Row> rows = {
        {-2, 5, 10, PlimClip{id, 0, 5}}, {8, 50, 10, PlimClip{id, 8, 10}}, {12, 15, 10, {}}, {6, 4, 10, {}},
        {4, 4 + 5e-7, 10, {}}, {kNaN, 4, 10, {}}, {1, 4, kNaN, {}}, {1, 4, 0, {}},
    };
    for (const Row& row : rows)
        EXPECT_EQ(PlimClip({id, row.start, row.end}).sanitized(row.raw), row.want) << row.start << ".." << row.end;
    std::vector<PlimClip> clips{{PlimClip::idForNumber(3), 5, 9}, {id, 20, 30}, {PlimClip::idForNumber(2), 0, 2}};
    EXPECT_EQ(sanitizeClips(clips, 10), (std::vector<PlimClip>{clips[0], clips[2]}));
}

TEST(ClipTimeline, PiecesAccumulateOutputWithRatesBothWays)
{
    std::vector<PlimClip> clips{{"b", 10, 20}, {"a", 0, 4}, {"gone", 30, 40}};
    std::vector<RemapStep> steps{{{2, 3}, RemapMode::rate(2)}, {{12, 16}, RemapMode::rate(4)},
        {{4, 10}, RemapMode::cut()}};
    auto timeline = ClipTimeline::make(clips, steps, 25);
    EXPECT_EQ(timeline.pieces, (std::vector<ClipTimeline::Piece>{{"b", 10, 20, 0, 7}, {"a", 0, 4, 7, 10.5}}));
    EXPECT_DOUBLE_EQ(timeline.outputDuration(), 10.5);
    EXPECT_EQ(timeline.rates.size(), 2u);

    // {raw, output} pairs that map both ways.
    for (auto [raw, output] : std::vector<std::pair<double, double>>{{14, 2.5}, {2.5, 9.25}, {0, 7}}) {
        EXPECT_DOUBLE_EQ(*timeline.outputTime(raw), output) << raw;
        EXPECT_DOUBLE_EQ(*timeline.rawTime(output), raw) << output;
    }
    EXPECT_DOUBLE_EQ(*timeline.outputTime(20), 7);
    EXPECT_FALSE(timeline.outputTime(25));
    EXPECT_FALSE(timeline.outputTime(kNaN));
    EXPECT_DOUBLE_EQ(*timeline.rawTime(-1), 10);
    EXPECT_DOUBLE_EQ(*timeline.rawTime(99), 4);
    EXPECT_EQ(timeline.pieceAt(6.9), 0u);
    EXPECT_EQ(timeline.pieceAt(7), 1u);
    EXPECT_FALSE(timeline.pieceAt(10.5));
    EXPECT_EQ(timeline.outputTimeIn(1, -3), 7);
    EXPECT_FALSE(timeline.outputTimeIn(2, 1));
    EXPECT_FALSE(ClipTimeline{}.rawTime(0));

    // Rates that are not above 0 play at normal speed.
    auto flat = ClipTimeline::make({{"a", 0, 10}}, {{{2, 4}, RemapMode::rate(0)}, {{6, 8}, RemapMode::rate(-1)}}, 10);
    EXPECT_DOUBLE_EQ(flat.outputDuration(), 10);
}

TEST(ClipTimeline, PassesJoinPiecesContiguousInRawTime)
{
    auto timeline = ClipTimeline::make({{"a", 0, 2}, {"b", 2, 5}, {"c", 8, 9}, {"d", 9, 10}, {"e", 1, 2}}, {}, 10);
    EXPECT_EQ(timeline.passes(),
        (std::vector<ClipTimeline::Pass>{{0, 5, {0, 1}}, {8, 10, {2, 3}}, {1, 2, {4}}}));
}
