#include "plan/plan.h"
#include "stage/render_rules.h"
#include "stage/staging_error.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>

using namespace plim;
using namespace plim::RenderRules;

namespace {

constexpr double inf = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

TEST(RenderRules, CanvasFollowsTheQualityTheAspectAndEvenSides)
{
    for (auto [quality, gif, recorded, canvas] : std::vector<std::tuple<Quality, bool, std::optional<Size>, PixelSize>>{
             {Quality::p1080, false, Size{1920, 1080}, {1920, 1080}},
             {Quality::p720, false, Size{1920, 1080}, {1280, 720}},
             {Quality::p2160, false, Size{2560, 1600}, {3456, 2160}},
             {Quality::p1080, false, Size{1080, 1920}, {1080, 1920}}, // portrait keeps its short side across
             {Quality::p1080, true, Size{1920, 1080}, {1152, 648}}, // GIF at 0.6
             {Quality::p720, false, Size{1365, 768}, {1278, 720}}, // 1279.68 rounds down to even
             {Quality::p1080, false, std::nullopt, {1920, 1080}}, // unknown: 16:9
             {Quality::p1080, false, Size{1, 900}, {1920, 1080}}, // a side under 2 is unknown
             {Quality::p720, false, Size{nan, 720}, {1280, 720}},
             {Quality::p1080, false, Size{inf, 1080}, {1080, 1080}}, // a side that is not finite becomes 1080
         }) {
        auto got = canvasSize(quality, gif, recorded);
        EXPECT_EQ(got, canvas) << static_cast<int>(quality) << " gif " << gif << " -> " << got.width << "x"
                               << got.height;
    }
    EXPECT_EQ(qualityFromShortSide(2160), Quality::p2160);
    EXPECT_EQ(qualityFromShortSide(1000), std::nullopt);
}

TEST(RenderRules, PaceTakesAtMostOneFramePerSlot)
{
    for (auto [outT, nextSlot, fps, expected] : std::vector<std::tuple<double, int64_t, double, Pace>>{
             {0.0, 0, 60, {true, 1}},
             {1.0 / 60 - 1e-9, 1, 60, {true, 2}}, // the 1e-6 margin keeps a rounding error in its slot
             {0.010, 1, 60, {false, 1}}, // slot 0 was drawn already
             {0.5, 3, 60, {true, 31}}, // a sparse source skips slots
             {0.09, 1, 12, {true, 2}},
             {nan, 4, 60, {false, 4}},
         })
        EXPECT_EQ(pace(outT, nextSlot, fps), expected) << outT << " " << nextSlot;
}

TEST(RenderRules, ExpectedFramesCountsWhatThePacingTakes)
{
    // {name, edit, recording seconds, source and output frame rates, frames}
    using Case = std::tuple<const char*, EditPlan, double, double, double, int64_t>;
    for (const auto& [name, plan, raw, sourceFPS, fps, frames] : std::vector<Case>{
             {"whole 2 s at 60", {}, 2, 60, 60, 120},
             {"trimmed to 0.5-1.5", {.trimIn = 0.5, .trimOut = 1.5}, 2, 60, 60, 60},
             {"a 4x skip over 1 s", {.skips = {{{0.5, 1.5}, false, 4.0}}}, 2, 60, 60, 75},
             {"a kept skip plays at speed 1", {.skips = {{{0.5, 1.5}, true, 4.0}}}, 2, 60, 60, 120},
             {"a cut of 1 s", {.cuts = {{"c", 0.5, 1.5, {}}}}, 2, 60, 60, 60},
             {"a 30 fps source still fills 60 fps", {}, 2, 30, 60, 120},
             {"a GIF at 12 from 60", {}, 2, 60, 12, 24},
             {"everything cut", {.cuts = {{"c", 0, 2, {}}}}, 2, 60, 60, 0},
             {"duration not finite", {}, nan, 60, 60, 0},
             {"source rate not finite", {}, 2, inf, 60, 0},
             {"output rate zero", {}, 2, 60, 0, 0},
         })
        EXPECT_EQ(expectedFrames(plan, raw, sourceFPS, fps), frames) << name;
}

TEST(RenderRules, PacedFramesMapThroughTheTimelineAndNeverRepeatASlot)
{
    // A 4x stretch drops three of every four source frames; the cut moves the rest earlier.
    const EditPlan plan{.skips = {{{1.0, 2.0}, false, 4.0}}, .cuts = {{"c", 2.5, 3.0, {}}}};
    auto timeline = plan.clipTimeline(4.0);
    auto frames = pacedFrames(timeline, 60, 60);
    ASSERT_FALSE(frames.empty());
    for (std::size_t i = 1; i < frames.size(); ++i)
        ASSERT_GT(frames[i].slot, frames[i - 1].slot) << i;
    int insideSkip = 0;
    for (const auto& f : frames) {
        if (f.rawTime >= 1.0 && f.rawTime < 2.0)
            ++insideSkip;
        EXPECT_FALSE(f.rawTime >= 2.5 && f.rawTime < 3.0) << "frame inside the cut at " << f.rawTime;
    }
    EXPECT_EQ(insideSkip, 15);
    // The first frame after the cut plays where the remap puts it: 1 + 0.25 + 0.5 s.
    auto after = std::find_if(frames.begin(), frames.end(), [](const PacedFrame& f) { return f.rawTime >= 3.0; });
    ASSERT_NE(after, frames.end());
    EXPECT_NEAR(after->outTime, 1.75, 1e-9);
    EXPECT_EQ(expectedFrames(timeline, 60, 60), std::llround(60 * 2.75));
    EXPECT_DOUBLE_EQ(readTotal(timeline.passes()), 3.5);
}

TEST(RenderRules, EveryStagingErrorIsAWholeSentence)
{
    for (const auto& [error, parts] : std::vector<std::pair<StagingError, std::vector<std::string>>>{
             {StagingError::unreadable("it has no picture"),
                 {"The plim could not be read: it has no picture.", "Nothing was saved and your plim is untouched."}},
             {StagingError::writerFailed("the disk is full", true),
                 {"The file could not be written: the disk is full.", "Check there is free space"}},
             {StagingError::writerFailed("it could not be created in its folder"),
                 {"could not be created in its folder.", "Check that the folder it saves in can be written to"}},
             {StagingError::stalled(30), {"made no progress for 30 seconds", "Nothing was saved"}},
             {StagingError::emptyEdit(), {"This edit removes the whole plim.", "then render again."}},
         }) {
        auto sentence = error.sentence();
        for (const auto& part : parts)
            EXPECT_NE(sentence.find(part), std::string::npos) << sentence;
        EXPECT_EQ(sentence.back(), '.') << sentence;
    }
    EXPECT_EQ(StagingError::unreadable("x").error().kind, Error::Kind::unreadable);
}

} // namespace
