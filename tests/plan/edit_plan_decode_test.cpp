// Reading and writing the plan's sidecars: round trips, damaged fields, dropped cuts, the
// notices, and files that cannot be read, which are never touched.

#include "plan/edit_plan.h"

#include "base/log.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <limits>
#include <thread>

using namespace plim;
using namespace plim::testkit;

namespace {

const std::string uuid1 = "0A1B2C3D-0000-4000-8000-000000000001";
const std::string uuid2 = "0A1B2C3D-0000-4000-8000-000000000002";
const std::string uuid3 = "0A1B2C3D-0000-4000-8000-000000000003";

EditPlan fullPlan()
{
    EditPlan plan;
    plan.zooms = {ZoomBlock{uuid1, 1, 3.5, 0.25, 0.75, 2, ZoomBlock::Origin::clickCluster(3), "snappy"},
        ZoomBlock{uuid2, 6, 7, 0.5, 0.5, 1.4, ZoomBlock::Origin::mark(), std::nullopt}};
    plan.skips = {SkipDecision{{10, 14}, false, 4}, SkipDecision{{20, 22.5}, true, 2.5}};
    plan.cameraCorner = "br";
    plan.cameraX = 0.8;
    plan.cameraY = 0.1;
    plan.masks = {MaskRegion{uuid1, 0.1, 0.2, 0.3, 0.4, 2, 5, MaskRegion::Style::pixelate}};
    plan.cameraScale = 1.25;
    plan.cameraShape = "card";
    plan.trimIn = 0.35;
    plan.trimOut = 41.2;
    plan.cuts = {CutRange{uuid1, 15, 16, TransitionSpec{TransitionSpec::Kind::dipToBackdrop, 0.4}},
        CutRange{uuid2, 30, 31.5, std::nullopt}};
    plan.cameraMirror = true;
    plan.cameraBorder = false;
    plan.splits = {12.5, 33};
    plan.fadeIn = TransitionSpec{TransitionSpec::Kind::dipToBlack, 0.35};
    plan.fadeOut = TransitionSpec{TransitionSpec::Kind::punch, 0.6};
    plan.taps = {TapMark{uuid3, 4.25, 100, 200}};
    plan.clips = std::vector<PlimClip>{{PlimClip::idForNumber(1), 0.35, 12.5}, {PlimClip::idForNumber(2), 12.5, 41.2}};
    return plan;
}

// The plan with one field back at its empty value.
EditPlan without(EditPlan plan, const std::string& key)
{
    if (key == "zooms") plan.zooms.clear();
    else if (key == "skips") plan.skips.clear();
    else if (key == "cameraCorner") plan.cameraCorner.reset();
    else if (key == "cameraX") plan.cameraX.reset();
    else if (key == "cameraY") plan.cameraY.reset();
    else if (key == "masks") plan.masks.clear();
    else if (key == "cameraScale") plan.cameraScale.reset();
    else if (key == "cameraShape") plan.cameraShape.reset();
    else if (key == "trimIn") plan.trimIn.reset();
    else if (key == "trimOut") plan.trimOut.reset();
    else if (key == "cuts") plan.cuts.clear();
    else if (key == "cameraMirror") plan.cameraMirror.reset();
    else if (key == "cameraBorder") plan.cameraBorder.reset();
    else if (key == "splits") plan.splits.clear();
    else if (key == "fadeIn") plan.fadeIn.reset();
    else if (key == "fadeOut") plan.fadeOut.reset();
    else if (key == "taps") plan.taps.clear();
    else if (key == "clips") plan.clips.reset();
    else ADD_FAILURE() << "unknown key " << key;
    return plan;
}

std::vector<std::string> noticeLines(const LogCapture& log)
{
    std::vector<std::string> out;
    for (const auto& line : log.lines())
        if (line.starts_with("Plim: "))
            out.push_back(line);
    return out;
}

} // namespace

TEST(EditPlanFiles, RoundTripThroughBothSidecars)
{
    TempDir dir;
    fs::path movie = dir / "B.mp4";
    EditPlan plan = fullPlan();
    ASSERT_TRUE(plan.write(movie));
    ASSERT_TRUE(plan.writeRendered(movie));
    ASSERT_TRUE(fs::exists(dir / "B.edits.json"));
    ASSERT_TRUE(fs::exists(dir / "B.rendered.json"));

    LogCapture log;
    auto edits = EditPlan::decodeBesideMovie(movie);
    ASSERT_TRUE(edits);
    EXPECT_EQ(*edits, plan);
    auto rendered = EditPlan::decode(dir / "B.rendered.json");
    ASSERT_TRUE(rendered);
    EXPECT_EQ(*rendered, plan);
    EXPECT_TRUE(noticeLines(log).empty());

    // Sorted keys, two-space indents, optional keys left out when absent.
    std::string text = readText(dir / "B.edits.json");
    EXPECT_TRUE(text.starts_with("{\n  \"cameraBorder\": false,\n  \"cameraCorner\": \"br\","));
    EXPECT_NE(text.find("\"origin\": {\n        \"clickCluster\": {\n          \"count\": 3\n        }\n      },"), std::string::npos);
    ASSERT_TRUE(EditPlan{}.write(movie));
    Json bare = Json::parse(readText(dir / "B.edits.json"));
    EXPECT_EQ(bare, (Json{{"zooms", Json::array()}, {"skips", Json::array()}, {"masks", Json::array()},
        {"cuts", Json::array()}, {"taps", Json::array()}, {"splits", Json::array()}}));
    auto empty = EditPlan::decode(dir / "B.edits.json");
    ASSERT_TRUE(empty);
    EXPECT_EQ(*empty, EditPlan{});
}

TEST(EditPlanFiles, PresentButEmptyClipsStayPresent)
{
    EditPlan plan;
    plan.clips = std::vector<PlimClip>{};
    auto back = EditPlan::fromJson(plan.toJson());
    ASSERT_TRUE(back);
    ASSERT_TRUE(back->clips.has_value());
    EXPECT_TRUE(back->clips->empty());
}

TEST(EditPlanFiles, WriteRefusesNumbersJsonCannotHoldAndKeepsTheOldFile)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    ASSERT_TRUE(fullPlan().write(movie));
    std::string before = readText(dir / "B.edits.json");

    EditPlan bad = fullPlan();
    bad.cuts[1].end = std::numeric_limits<double>::infinity();
    auto status = bad.write(movie);
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().sentence,
        "Plim could not write B.edits.json because one of the edit's numbers is not a finite value. "
        "Nothing on disk changed; undo the last change and save again.");
    EXPECT_EQ(readText(dir / "B.edits.json"), before);

    auto missingFolder = fullPlan().write(dir / "gone" / "B.mov");
    ASSERT_FALSE(missingFolder);
    EXPECT_FALSE(missingFolder.error().sentence.empty());
}

TEST(EditPlanDecode, ADamagedFieldOfEveryTypeKeepsEveryOtherField)
{
    // One damaged value per key: wrong types, a bad element, an unknown raw value.
    const std::vector<std::pair<std::string, Json>> damage = {
        {"zooms", Json::array({Json{{"id", uuid1}, {"start", 1}}})},
        {"skips", Json::array({Json{{"keep", true}}})},
        {"cameraCorner", 7},
        {"cameraX", "left"},
        {"cameraY", Json::array()},
        {"masks", Json::array({Json{{"id", uuid1}, {"x", 0}, {"y", 0}, {"w", 1}, {"h", 1}, {"start", 0},
                                    {"end", 1}, {"style", "smudge"}}})},
        {"cameraScale", true},
        {"cameraShape", 1.5},
        {"trimIn", "0.5"},
        {"trimOut", Json::object()},
        {"cuts", Json{{"start", 1}}},
        {"cameraMirror", "yes"},
        {"cameraBorder", 1},
        {"splits", Json::array({1.0, "two"})},
        {"fadeIn", Json{{"kind", "wipe"}, {"duration", 0.5}}},
        {"fadeOut", Json{{"kind", "blur"}}},
        {"taps", Json::array({Json{{"id", "not-a-uuid"}, {"t", 1}, {"x", 0}, {"y", 0}}})},
        {"clips", Json::array({Json{{"id", uuid1}, {"start", 0}, {"end", "end"}}})},
    };
    const EditPlan full = fullPlan();
    for (const auto& [key, bad] : damage) {
        SCOPED_TRACE(key);
        Json value = full.toJson();
        ASSERT_TRUE(value.contains(key));
        value[key] = bad;
        EditPlan::DecodeReport report;
        LogCapture log;
        auto plan = EditPlan::fromJson(value, std::string("B.edits.json"), &report);
        ASSERT_TRUE(plan);
        EXPECT_EQ(*plan, without(full, key));
        EXPECT_EQ(report.droppedKeys, std::vector<std::string>{key});
        EXPECT_TRUE(report.droppedCuts.empty());
        auto lines = noticeLines(log);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_TRUE(lines[0].starts_with("Plim: B.edits.json: " + key + " could not be read and were left out."))
            << lines[0];
    }
}

TEST(EditPlanDecode, AbsentAndNullKeysAreSilentDefaults)
{
    LogCapture log;
    Json value = {{"zooms", nullptr}, {"trimIn", nullptr}, {"skips", Json::array({Json{{"span", {{"start", 1}, {"end", 2}}}}})}};
    EditPlan::DecodeReport report;
    auto plan = EditPlan::fromJson(value, std::nullopt, &report);
    ASSERT_TRUE(plan);
    EXPECT_TRUE(report.droppedKeys.empty());
    EXPECT_TRUE(noticeLines(log).empty());
    ASSERT_EQ(plan->skips.size(), 1u);
    EXPECT_EQ(plan->skips[0], (SkipDecision{{1, 2}, false, 4.0}));
    EXPECT_FALSE(plan->trimIn);
    EXPECT_FALSE(plan->clips);

    auto notObject = EditPlan::fromJson(Json::array({1, 2}));
    ASSERT_FALSE(notObject);
    EXPECT_EQ(notObject.error().sentence, "It holds a JSON array where an object of edits belongs.");
}

TEST(EditPlanDecode, ZoomOriginAndStyleDefaults)
{
    Json zoom = {{"id", "0a1b2c3d-0000-4000-8000-00000000000f"}, {"start", 1}, {"end", 2}, {"centerX", 0.3},
        {"centerY", 0.6}, {"scale", 1.8}};
    auto block = ZoomBlock::fromJson(zoom);
    ASSERT_TRUE(block);
    EXPECT_EQ(block->id, "0A1B2C3D-0000-4000-8000-00000000000F");
    EXPECT_EQ(block->origin, ZoomBlock::Origin::mark());
    EXPECT_FALSE(block->style);

    zoom["origin"] = {{"clickCluster", {{"count", 4}}}};
    zoom["style"] = "a style from a later version";
    block = ZoomBlock::fromJson(zoom);
    ASSERT_TRUE(block);
    EXPECT_EQ(block->origin, ZoomBlock::Origin::clickCluster(4));
    EXPECT_EQ(block->style, "a style from a later version");

    zoom["origin"] = {{"mark", Json::object()}};
    EXPECT_EQ(ZoomBlock::fromJson(zoom)->origin, ZoomBlock::Origin::mark());
    zoom["origin"] = {{"clickCluster", {{"count", "four"}}}};
    EXPECT_FALSE(ZoomBlock::fromJson(zoom));
    zoom["origin"] = {{"teleport", Json::object()}};
    EXPECT_FALSE(ZoomBlock::fromJson(zoom));
    zoom["origin"] = {{"mark", Json::object()}};
    zoom.erase("scale");
    EXPECT_FALSE(ZoomBlock::fromJson(zoom));
}

TEST(EditPlanDecode, ACutWithoutTimesIsLeftOutAlone)
{
    Json value = fullPlan().toJson();
    value["cuts"] = Json::array({
        Json{{"id", uuid1}, {"start", 1}, {"end", 2}},
        Json{{"id", uuid2}, {"start", 3}},
        Json{{"id", uuid3}, {"start", 5}, {"end", 6}, {"transition", {{"kind", "blur"}, {"duration", 0.5}}}},
    });
    LogCapture log;
    EditPlan::DecodeReport report;
    auto plan = EditPlan::fromJson(value, std::string("B.edits.json"), &report);
    ASSERT_TRUE(plan);
    ASSERT_EQ(plan->cuts.size(), 2u);
    EXPECT_EQ(plan->cuts[0], (CutRange{uuid1, 1, 2, std::nullopt}));
    EXPECT_EQ(plan->cuts[1], (CutRange{uuid3, 5, 6, TransitionSpec{TransitionSpec::Kind::blur, 0.5}}));
    EXPECT_EQ(report.droppedCuts, std::vector<std::string>{"cut 2"});
    EXPECT_TRUE(report.droppedKeys.empty());
    EditPlan expected = fullPlan();
    expected.cuts = plan->cuts;
    EXPECT_EQ(*plan, expected);
    EXPECT_EQ(noticeLines(log), std::vector<std::string>{
        "Plim: B.edits.json: cut 2 is missing one of its times and was left out. Every other edit was kept."});
}

TEST(EditPlanDecode, SeveralCutsWithoutTimesAreCountedAndNamed)
{
    Json cuts = Json::array({Json{{"id", uuid1}, {"start", 1}, {"end", 2}}});
    for (int i = 0; i < 6; ++i)
        cuts.push_back(Json{{"id", uuid2}, {"start", 3 + i}});
    LogCapture log;
    auto plan = EditPlan::fromJson(Json{{"cuts", cuts}}, std::string("B.edits.json"));
    ASSERT_TRUE(plan);
    EXPECT_EQ(plan->cuts.size(), 1u);
    EXPECT_EQ(noticeLines(log), std::vector<std::string>{
        "Plim: B.edits.json: 6 cuts are missing one of their times and were left out "
        "(cut 2, cut 3, cut 4, cut 5, cut 6 and 1 more). Every other edit was kept."});

    EXPECT_EQ(plan_notices::droppedCuts("X", {"cut 1", "cut 4"}),
        "X: 2 cuts are missing one of their times and were left out (cut 1, cut 4). Every other edit was kept.");
    EXPECT_EQ(plan_notices::droppedCuts("X", {"a cut"}),
        "X: a cut is missing one of its times and was left out. Every other edit was kept.");
}

TEST(EditPlanDecode, DroppedFieldNoticesGiveTheRightAdvice)
{
    EXPECT_EQ(plan_notices::droppedFields("B.edits.json", {"trimIn", "cuts"}),
        "B.edits.json: trimIn, cuts could not be read and were left out. The rest of the edit was kept; "
        "re-apply your edits in the editor to rewrite the file.");
    EXPECT_EQ(plan_notices::droppedFields("B.edits.json", {"skips"}),
        "B.edits.json: skips could not be read and were left out. The rest of the edit was kept; "
        "skips are detected by Plim rather than authored, so they are not lost work in themselves; "
        "any tuning you gave them by hand went with them.");

    // Both advices, authored first, detected keys joined by " and "; keys in field order.
    LogCapture log;
    auto plan = EditPlan::fromJson(Json{{"masks", 3}, {"zooms", 1}, {"skips", "x"}});
    ASSERT_TRUE(plan);
    EXPECT_EQ(noticeLines(log), std::vector<std::string>{
        "Plim: a plan sidecar: zooms, skips, masks could not be read and were left out. The rest of the edit "
        "was kept; re-apply your edits in the editor to rewrite the file. zooms and skips are detected by "
        "Plim rather than authored, so they are not lost work in themselves; any tuning you gave them by "
        "hand went with them."});
}

TEST(EditPlanDecode, NestedDecodesShareOneBatchAndLogEachNoticeOnce)
{
    LogCapture log;
    {
        PlanNoticeBatch outer;
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(EditPlan::fromJson(Json{{"trimIn", "x"}}, std::string("B.edits.json")));
        ASSERT_TRUE(EditPlan::fromJson(Json{{"trimOut", "x"}}, std::string("B.edits.json")));
        EXPECT_TRUE(noticeLines(log).empty());

        // Another thread has its own batch and logs when its decode ends.
        std::thread other([] { (void)EditPlan::fromJson(Json{{"cameraX", "x"}}, std::string("C.edits.json")); });
        other.join();
        ASSERT_EQ(noticeLines(log).size(), 1u);
        EXPECT_TRUE(noticeLines(log)[0].starts_with("Plim: C.edits.json: cameraX"));
    }
    auto lines = noticeLines(log);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[1].starts_with("Plim: B.edits.json: trimIn could not be read"));
    EXPECT_TRUE(lines[2].starts_with("Plim: B.edits.json: trimOut could not be read"));
    auto recent = PlanNoticeBatch::recent();
    ASSERT_GE(recent.size(), 3u);
    EXPECT_EQ("Plim: " + recent.back(), lines[2]);
}

TEST(EditPlanDecode, AbsentFileIsSilent)
{
    TempDir dir;
    LogCapture log;
    EXPECT_FALSE(EditPlan::decode(dir / "B.edits.json"));
    EXPECT_TRUE(noticeLines(log).empty());
}

TEST(EditPlanDecode, CorruptFilesAreReportedAndLeftByteForByte)
{
    TempDir dir;
    const std::vector<std::pair<std::string, std::string>> files = {
        {"truncated.edits.json", "{\n  \"cuts\": [\n    {\"start\": 1,"},
        {"array.edits.json", "[1, 2, 3]\n"},
        {"empty.edits.json", ""},
        {"binary.edits.json", std::string("\x89PNG\r\n\x1a\n\0\0", 10)},
    };
    for (const auto& [name, bytes] : files) {
        SCOPED_TRACE(name);
        writeText(dir / name, bytes);
        LogCapture log;
        EXPECT_FALSE(EditPlan::decode(dir / name));
        auto lines = noticeLines(log);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_TRUE(lines[0].starts_with("Plim: " + name
            + " could not be read at all, so this plim falls back to its automatic edit. The file says: "))
            << lines[0];
        EXPECT_GT(lines[0].size(), ("Plim: " + name + " could not be read at all, so this plim falls back to its "
                                       "automatic edit. The file says: ").size());
        EXPECT_EQ(readText(dir / name), bytes);
    }
    LogCapture log;
    EditPlan::decode(dir / "array.edits.json");
    EXPECT_EQ(noticeLines(log), std::vector<std::string>{
        "Plim: array.edits.json could not be read at all, so this plim falls back to its automatic edit. "
        "The file says: It holds a JSON array where an object of edits belongs."});
}

TEST(EditPlanDecode, UnreadableFileIsReportedAndLeftAlone)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root reads files whatever their permissions";
    TempDir dir;
    fs::path path = dir / "B.edits.json";
    std::string bytes = encodeJson(fullPlan().toJson());
    writeText(path, bytes);
    ASSERT_EQ(chmod(path.c_str(), 0), 0);

    LogCapture log;
    EXPECT_FALSE(EditPlan::decode(path));
    EXPECT_EQ(noticeLines(log), std::vector<std::string>{
        "Plim: B.edits.json is on disk but could not be read, so this plim falls back to its automatic edit. "
        "Your edits are still in that file, untouched. The system says: Permission denied. A file still "
        "waiting to download from a network or cloud folder, or one whose permissions changed, reads "
        "exactly like this."});

    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    EXPECT_EQ(readText(path), bytes);
}

TEST(EditPlanDecode, AFolderInThePlaceOfTheFileIsUnreadable)
{
    TempDir dir;
    fs::path path = dir / "B.edits.json";
    fs::create_directory(path);
    writeText(path / "inside", "kept");
    LogCapture log;
    EXPECT_FALSE(EditPlan::decode(path));
    auto lines = noticeLines(log);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("Plim: B.edits.json is on disk but could not be read, so this plim falls "
                                     "back to its automatic edit. Your edits are still in that file, untouched. "
                                     "The system says: Is a directory. A file still waiting"))
        << lines[0];
    EXPECT_EQ(readText(path / "inside"), "kept");
}

TEST(EditPlanDecode, DamagedFileIsNotRewrittenByReading)
{
    TempDir dir;
    fs::path path = dir / "B.edits.json";
    std::string bytes = "{\"cuts\": [{\"start\": 1}], \"zooms\": 5, \"trimIn\": 2, \"somethingNew\": [1]}";
    writeText(path, bytes);
    auto mtime = fs::last_write_time(path);
    auto plan = EditPlan::decode(path);
    ASSERT_TRUE(plan);
    EXPECT_EQ(plan->trimIn, 2);
    EXPECT_TRUE(plan->cuts.empty());
    EXPECT_EQ(readText(path), bytes);
    EXPECT_EQ(fs::last_write_time(path), mtime);
}

TEST(EditPlanDecode, UnreadableSentenceTrimsAndEndsTheSystemText)
{
    EXPECT_EQ(plan_notices::unreadable("S", "  Input/output error \n"),
        "S is on disk but could not be read, so this plim falls back to its automatic edit. Your edits are "
        "still in that file, untouched. The system says: Input/output error. A file still waiting to download "
        "from a network or cloud folder, or one whose permissions changed, reads exactly like this.");
    EXPECT_NE(plan_notices::unreadable("S", "Done.").find("The system says: Done. A file"), std::string::npos);
}
