// Clips: ids, sanitising, JSON, and the timeline they make with sped-up stretches.

#include "plan/edit_plan.h"
#include "plan/plim_clip.h"

#include <gtest/gtest.h>

#include <limits>

using namespace plim;

namespace {
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
}

TEST(PlimClip, NumberedIds)
{
    EXPECT_EQ(PlimClip::idForNumber(7), "7A4E0C11-0000-4000-8000-000000000007");
    EXPECT_EQ(PlimClip::idForNumber(123456789012), "7A4E0C11-0000-4000-8000-123456789012");
    EXPECT_EQ(PlimClip::idForNumber(-4), "7A4E0C11-0000-4000-8000-000000000000");
    EXPECT_EQ(PlimClip::idForNumber(10'000'000'000'000), "7A4E0C11-0000-4000-8000-999999999999");
}

TEST(PlimClip, SanitisingClampsDropsAndKeepsIds)
{
    const std::string id = PlimClip::idForNumber(1);
    EXPECT_EQ(PlimClip({id, -2, 5}).sanitized(10), (PlimClip{id, 0, 5}));
    EXPECT_EQ(PlimClip({id, 8, 50}).sanitized(10), (PlimClip{id, 8, 10}));
    EXPECT_FALSE(PlimClip({id, 12, 15}).sanitized(10));
    EXPECT_FALSE(PlimClip({id, 6, 4}).sanitized(10));
    EXPECT_FALSE(PlimClip({id, 4, 4 + 5e-7}).sanitized(10));
    EXPECT_FALSE(PlimClip({id, kNaN, 4}).sanitized(10));
    EXPECT_FALSE(PlimClip({id, 1, 4}).sanitized(kNaN));
    EXPECT_FALSE(PlimClip({id, 1, 4}).sanitized(0));

    std::vector<PlimClip> clips{{PlimClip::idForNumber(3), 5, 9}, {PlimClip::idForNumber(1), 20, 30},
        {PlimClip::idForNumber(2), 0, 2}};
    auto kept = sanitizeClips(clips, 10);
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_EQ(kept[0], clips[0]);
    EXPECT_EQ(kept[1], clips[2]);
}

TEST(PlimClip, Json)
{
    PlimClip clip{PlimClip::idForNumber(9), 1.5, 4.25};
    EXPECT_EQ(clip.toJson(), (Json{{"id", clip.id}, {"start", 1.5}, {"end", 4.25}}));
    EXPECT_EQ(PlimClip::fromJson(clip.toJson()), clip);
    EXPECT_FALSE(PlimClip::fromJson(Json{{"id", clip.id}, {"start", 1.5}}));
    EXPECT_FALSE(PlimClip::fromJson(Json{{"id", "clip one"}, {"start", 1.5}, {"end", 2}}));
    EXPECT_FALSE(PlimClip::fromJson(Json::array()));
}

TEST(ClipTimeline, PiecesAccumulateOutputWithRates)
{
    std::vector<PlimClip> clips{{"b", 10, 20}, {"a", 0, 4}, {"gone", 30, 40}};
    std::vector<RemapStep> steps{{{2, 3}, RemapMode::rate(2)}, {{12, 16}, RemapMode::rate(4)},
        {{4, 10}, RemapMode::cut()}};
    auto timeline = ClipTimeline::make(clips, steps, 25);
    ASSERT_EQ(timeline.pieces.size(), 2u);
    EXPECT_EQ(timeline.pieces[0], (ClipTimeline::Piece{"b", 10, 20, 0, 7}));
    EXPECT_EQ(timeline.pieces[1], (ClipTimeline::Piece{"a", 0, 4, 7, 10.5}));
    EXPECT_DOUBLE_EQ(timeline.outputDuration(), 10.5);
    EXPECT_EQ(timeline.rates.size(), 2u);

    EXPECT_DOUBLE_EQ(*timeline.outputTime(14), 2.5);
    EXPECT_DOUBLE_EQ(*timeline.outputTime(2.5), 9.25);
    EXPECT_DOUBLE_EQ(*timeline.outputTime(20), 7);
    EXPECT_FALSE(timeline.outputTime(25));
    EXPECT_FALSE(timeline.outputTime(kNaN));

    EXPECT_DOUBLE_EQ(*timeline.rawTime(2.5), 14);
    EXPECT_DOUBLE_EQ(*timeline.rawTime(9.25), 2.5);
    EXPECT_DOUBLE_EQ(*timeline.rawTime(7), 0);
    EXPECT_DOUBLE_EQ(*timeline.rawTime(-1), 10);
    EXPECT_DOUBLE_EQ(*timeline.rawTime(99), 4);
    EXPECT_EQ(timeline.pieceAt(6.9), 0u);
    EXPECT_EQ(timeline.pieceAt(7), 1u);
    EXPECT_FALSE(timeline.pieceAt(10.5));
    EXPECT_EQ(timeline.outputTimeIn(1, -3), 7);
    EXPECT_FALSE(timeline.outputTimeIn(2, 1));
    EXPECT_FALSE(ClipTimeline{}.rawTime(0));
}

TEST(ClipTimeline, NonPositiveRatesPlayAtNormalSpeed)
{
    auto timeline = ClipTimeline::make({{"a", 0, 10}}, {{{2, 4}, RemapMode::rate(0)}, {{6, 8}, RemapMode::rate(-1)}}, 10);
    EXPECT_DOUBLE_EQ(timeline.outputDuration(), 10);
}

TEST(ClipTimeline, PassesJoinPiecesContiguousInRawTime)
{
    auto timeline = ClipTimeline::make(
        {{"a", 0, 2}, {"b", 2, 5}, {"c", 8, 9}, {"d", 9, 10}, {"e", 1, 2}}, {}, 10);
    auto passes = timeline.passes();
    ASSERT_EQ(passes.size(), 3u);
    EXPECT_EQ(passes[0], (ClipTimeline::Pass{0, 5, {0, 1}}));
    EXPECT_EQ(passes[1], (ClipTimeline::Pass{8, 10, {2, 3}}));
    EXPECT_EQ(passes[2], (ClipTimeline::Pass{1, 2, {4}}));
}

TEST(ClipTimeline, FromAPlanMatchesItsSteps)
{
    EditPlan plan;
    plan.trimIn = 1;
    plan.cuts = {CutRange{"11111111-2222-4333-8444-555555555555", 5, 6, std::nullopt}};
    plan.skips = {SkipDecision{{3, 9}, false, 2}};
    auto timeline = plan.clipTimeline(12);
    ASSERT_EQ(timeline.pieces.size(), 2u);
    EXPECT_EQ(timeline.pieces[0].id, "segment-1000-5000");
    // [1,3] plain, [3,5] at 2: 3 s; then [6,9] at 2 and [9,12] plain: 4.5 s.
    EXPECT_DOUBLE_EQ(timeline.pieces[0].outEnd, 3);
    EXPECT_DOUBLE_EQ(timeline.outputDuration(), 7.5);
    EXPECT_EQ(timeline.passes().size(), 2u);

    plan.clips = std::vector<PlimClip>{{PlimClip::idForNumber(1), 6, 12}, {PlimClip::idForNumber(2), 0, 3}};
    timeline = plan.clipTimeline(12);
    ASSERT_EQ(timeline.pieces.size(), 2u);
    EXPECT_EQ(timeline.pieces[0].id, PlimClip::idForNumber(1));
    EXPECT_DOUBLE_EQ(timeline.pieces[0].outEnd, 4.5);
    EXPECT_DOUBLE_EQ(timeline.outputDuration(), 7.5);
}
