#include "library/plim_plan.h"
#include "testkit/testkit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;
using testing::HasSubstr;

namespace {

// A pointer that rests, clicks at 3 s and rests again: its automatic edit trims the ends.
CursorTrack restingPointer()
{
    CursorTrack track{.displayWidth = 1920, .displayHeight = 1080};
    for (int64_t t = 0; t <= 10000; t += 100)
        track.samples.push_back({t, 100.0 + (t > 2500 && t < 3500 ? double(t - 2500) : 0.0), 100});
    track.clicks.push_back({3000, 600, 100});
    return track;
}

// The plan without its zoom blocks' ids, which every automatic edit makes afresh.
EditPlan withoutIds(std::optional<EditPlan> plan)
{
    EditPlan out = plan.value_or(EditPlan{});
    for (ZoomBlock& zoom : out.zooms)
        zoom.id.clear();
    return out;
}

} // namespace

TEST(PlimPlan, EveryPlimGetsItsPlanByOneRuleAndAFileReadInPartIsNeverRewritten)
{
    TempDir dir;
    const fs::path movie = dir / "B.mov";
    const CursorTrack pointer = restingPointer();
    const EditPlan automatic = withoutIds(PlimPlan::automaticEdit(&pointer, nullptr, 10).first);
    ASSERT_TRUE(automatic.trimIn || automatic.trimOut) << "the automatic edit of this pointer trims";

    // No edits file: the automatic edit, said, and kept as the plim's edits after a render.
    PlimPlan none = PlimPlan::choose(movie, &pointer, nullptr, 10);
    EXPECT_EQ(none.source, PlimPlan::Source::automatic);
    EXPECT_EQ(withoutIds(none.plan), automatic);
    EXPECT_EQ(none.notices, std::vector<std::string>{"There is no B.edits.json yet, so this plim gets its automatic edit."});
    EXPECT_EQ(none.keepPlanUsed(movie, none.plan), std::string());
    EXPECT_EQ(PlimPlan::choose(movie, &pointer, nullptr, 10).plan, none.plan);
    EXPECT_EQ(PlimPlan::choose(movie, &pointer, nullptr, 10).source, PlimPlan::Source::edits);

    // Files that cannot be used: the automatic edit, said, and the file's bytes kept, the
    // plan used going to B.rendered.json.
    const std::string utf16("\xFF\xFE{\0}\0", 6);
    for (const std::string& bytes : {utf16, std::string(R"({"version": 3, "trimIn": 1})")}) {
        writeText(dir / "B.edits.json", bytes);
        PlimPlan fallback = PlimPlan::choose(movie, &pointer, nullptr, 10);
        EXPECT_EQ(fallback.source, PlimPlan::Source::fallback);
        EXPECT_EQ(withoutIds(fallback.plan), automatic);
        ASSERT_FALSE(fallback.notices.empty());
        EXPECT_THAT(fallback.notices.back(), HasSubstr("automatic edit"));
        auto kept = fallback.keepPlanUsed(movie, fallback.plan);
        ASSERT_TRUE(kept);
        EXPECT_EQ(*kept, "B.edits.json was kept as it is, since it could not be used; the plan this render used is in "
                         "B.rendered.json.");
        EXPECT_EQ(readText(dir / "B.edits.json"), bytes);
        EXPECT_EQ(EditPlan::decode(dir / "B.rendered.json").value, fallback.plan);
    }

    // Read in part (a transition this build does not know, a voiceover with a mistyped
    // field, a look with an unknown shape): what could be read, the file never rewritten.
    const std::string partial = R"({"trimOut": 5, "cuts": [{"id": "7A4E0C11-0000-4000-8000-000000000001", "start": 1,
        "end": 2, "transition": {"kind": "wipe", "duration": 0.3}}], "look": {"shape": "hexagon"},
        "voiceovers": [{"id": "7A4E0C11-0000-4000-8000-000000000002", "start": "soon", "duration": 1, "file": "v.wav"}]})";
    writeText(dir / "B.edits.json", partial);
    PlimPlan part = PlimPlan::choose(movie, &pointer, nullptr, 10);
    EXPECT_EQ(part.source, PlimPlan::Source::edits);
    EXPECT_TRUE(part.readInPart);
    EXPECT_EQ(part.plan.trimOut, 5.0);
    EXPECT_THAT(part.notices.back(), HasSubstr("was read only in part"));
    EXPECT_FALSE(part.editsMayBeRewritten());
    auto kept = part.keepPlanUsed(movie, part.plan);
    ASSERT_TRUE(kept);
    EXPECT_THAT(*kept, HasSubstr("B.edits.json was kept as it is, since part of it could not be read"));
    EXPECT_EQ(readText(dir / "B.edits.json"), partial);
    EXPECT_EQ(EditPlan::decode(dir / "B.rendered.json").value->trimOut, 5.0);

    // Read whole: its own plan, rewritten with the plan a render used.
    writeText(dir / "B.edits.json", R"({"version": 2, "trimOut": 4, "captionsFile": "B.captions.json"})");
    PlimPlan whole = PlimPlan::choose(movie, &pointer, nullptr, 10);
    EXPECT_EQ(whole.source, PlimPlan::Source::edits);
    EXPECT_TRUE(whole.notices.empty());
    EXPECT_EQ(whole.keepPlanUsed(movie, none.plan), std::string());
    EXPECT_EQ(EditPlan::decodeBesideMovie(movie).value, none.plan);
    EXPECT_THAT(readText(dir / "B.edits.json"), HasSubstr("\"captionsFile\": \"B.captions.json\""));
}
