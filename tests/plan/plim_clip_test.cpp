// Clips: ids, sanitising, and the timeline they make with sped-up stretches.

#include "plan/plim_clip.h"

#include <gtest/gtest.h>

#include <limits>

using namespace plim;

namespace {
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
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
