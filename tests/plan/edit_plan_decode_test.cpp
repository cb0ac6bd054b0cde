// Reading and writing the plan's sidecars: round trips, damaged fields, dropped cuts, the
// notices, and files that cannot be read, which are never touched.

#include "plan/edit_plan.h"
#include "plan/time_remap.h"

#include "base/json.h"
#include "base/log.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <array>
#include <limits>
#include <thread>

using namespace plim;
using namespace plim::testkit;

namespace {

const std::string uuid1 = "0A1B2C3D-0000-4000-8000-000000000001";
const std::string uuid2 = "0A1B2C3D-0000-4000-8000-000000000002";
const std::string uuid3 = "0A1B2C3D-0000-4000-8000-000000000003";
using K = TransitionSpec::Kind;

EditPlan fullPlan()
{
    return EditPlan{
        .zooms = {{uuid1, 1, 3.5, 0.25, 0.75, 2, ZoomBlock::Origin::clickCluster(3), "a later style"},
            {uuid2, 6, 7, 0.5, 0.5, 1.4, ZoomBlock::Origin::mark(), std::nullopt}},
        .skips = {{{10, 14}, false, 4}, {{20, 22.5}, true, 2.5}},
        .cameraCorner = "br", .cameraX = 0.8, .cameraY = 0.1,
        .masks = {{uuid1, 0.1, 0.2, 0.3, 0.4, 2, 5, MaskRegion::Style::pixelate}},
        .cameraScale = 1.25, .cameraShape = "card", .trimIn = 0.35, .trimOut = 41.2,
        .cuts = {{uuid1, 15, 16, TransitionSpec{K::dipToBackdrop, 0.4}}, {uuid2, 30, 31.5, std::nullopt}},
        .cameraMirror = true, .cameraBorder = false, .splits = {12.5, 33},
        .fadeIn = TransitionSpec{K::dipToBlack, 0.35}, .fadeOut = TransitionSpec{K::punch, 0.6},
        .taps = {{uuid3, 4.25, 100, 200}},
        .clips = std::vector<PlimClip>{{PlimClip::idForNumber(1), 0.35, 12.5}, {PlimClip::idForNumber(2), 12.5, 41.2}},
    };
}

std::vector<std::string> noticeLines(const LogCapture& log)
{
    std::vector<std::string> out;
    for (const auto& line : log.lines())
        if (line.starts_with("Plim: "))
            out.push_back(line);
    return out;
}

std::string undecodableStart(const std::string& source)
{
    return source + " could not be read at all, so this plim falls back to its automatic edit. The file says: ";
}

std::string unreadableSentence(const std::string& source, const std::string& system)
{
    return source + " is on disk but could not be read, so this plim falls back to its automatic edit. Your edits "
        "are still in that file, untouched. The system says: " + system + " A file still waiting to download from "
        "a network or cloud folder, or one whose permissions changed, reads exactly like this.";
}

} // namespace

TEST(EditPlanFiles, RoundTripThroughBothSidecarsAndRefusedWrites)
{
    TempDir dir;
    fs::path movie = dir / "B.mp4";
    EditPlan plan = fullPlan();
    ASSERT_TRUE(plan.write(movie));
    ASSERT_TRUE(plan.writeRendered(movie));
    LogCapture log;
    auto beside = EditPlan::decodeBesideMovie(movie);
    EXPECT_EQ(beside.value, plan);
    EXPECT_TRUE(beside.notices.empty());
    EXPECT_EQ(EditPlan::decode(dir / "B.rendered.json").value, plan);
    EXPECT_TRUE(noticeLines(log).empty());

    // Sorted keys, two-space indents; absent optional keys left out, an empty clip list kept.
    std::string text = readText(dir / "B.edits.json");
    EXPECT_TRUE(text.starts_with("{\n  \"cameraBorder\": false,\n  \"cameraCorner\": \"br\","));
    EXPECT_NE(text.find("\"origin\": {\n        \"clickCluster\": {\n          \"count\": 3\n        }\n      },"), std::string::npos);
    EditPlan bare{.clips = std::vector<PlimClip>{}};
    ASSERT_TRUE(bare.write(movie));
    EXPECT_EQ(Json::parse(readText(dir / "B.edits.json")),
        (Json{{"zooms", Json::array()}, {"skips", Json::array()}, {"masks", Json::array()}, {"cuts", Json::array()},
            {"taps", Json::array()}, {"splits", Json::array()}, {"clips", Json::array()}}));
    EXPECT_EQ(EditPlan::decodeBesideMovie(movie).value, bare);

    // A number JSON cannot hold, or a missing folder: refused, with the old file kept.
    std::string before = readText(dir / "B.edits.json");
    plan.cuts[1].end = std::numeric_limits<double>::infinity();
    auto status = plan.write(movie);
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
    const Json full = fullPlan().toJson();
    // The list's first item with one value changed, then the rest.
    auto itemWith = [&](const char* list, const char* key, Json value) {
        Json items = full[list];
        items[0][key] = std::move(value);
        return items;
    };
    // One damaged value per key: wrong types, a bad element, an unknown raw value.
    const std::vector<std::pair<std::string, Json>> damage = {
        {"zooms", Json::array({Json{{"id", uuid1}, {"start", 1}}})},
        {"zooms", itemWith("zooms", "origin", {{"clickCluster", {{"count", "four"}}}})},
        {"zooms", itemWith("zooms", "origin", {{"clickCluster", {{"count", -1}}}})},
        {"zooms", itemWith("zooms", "origin", {{"teleport", Json::object()}})},
        {"zooms", itemWith("zooms", "style", 5)},
        {"skips", Json::array({Json{{"keep", true}}})},
        {"cameraCorner", 7}, {"cameraX", "left"}, {"cameraY", Json::array()},
        {"masks", itemWith("masks", "style", "smudge")},
        {"cameraScale", true}, {"cameraShape", 1.5}, {"trimIn", "0.5"}, {"trimOut", Json::object()},
        {"cuts", Json{{"start", 1}}}, {"cameraMirror", "yes"}, {"cameraBorder", 1},
        {"splits", Json::array({1.0, "two"})},
        {"fadeIn", Json{{"kind", "wipe"}, {"duration", 0.5}}}, {"fadeOut", Json{{"kind", "blur"}}},
        {"taps", itemWith("taps", "id", "not-a-uuid")},
        {"clips", itemWith("clips", "end", "end")},
    };
    for (const auto& [key, bad] : damage) {
        SCOPED_TRACE(key);
        Json value = full;
        value[key] = bad;
        // What the plan holds without that field: an empty list, or no key at all.
        Json expected = full;
        if (full[key].is_array() && key != "clips")
            expected[key] = Json::array();
        else
            expected.erase(key);
        EditPlan::DecodeReport report;
        LogCapture log;
        auto plan = EditPlan::fromJson(value, std::string("B.edits.json"), &report);
        ASSERT_TRUE(plan);
        EXPECT_EQ(plan->value.toJson(), expected);
        EXPECT_EQ(report, (EditPlan::DecodeReport{{key}, {}}));
        EXPECT_TRUE(noticeLines(log).empty()); // the caller decides what to do with notices
        bool detected = key == "zooms" || key == "skips";
        EXPECT_EQ(plan->notices, std::vector<std::string>{"B.edits.json: " + key + " could not be read and "
            "were left out. The rest of the edit was kept; " + (detected ? key + " are detected by Plim rather than "
            "authored, so they are not lost work in themselves; any tuning you gave them by hand went with them."
            : "re-apply your edits in the editor to rewrite the file.")});
    }
}

TEST(EditPlanDecode, AbsentAndNullValuesAreQuietDefaults)
{
    LogCapture log;
    Json zoom = {{"id", "0a1b2c3d-0000-4000-8000-00000000000f"}, {"start", 1}, {"end", 2}, {"centerX", 0.3},
        {"centerY", 0.6}, {"scale", 1.8}};
    Json value = {{"zooms", {zoom}}, {"trimIn", nullptr}, {"cameraX", nullptr},
        {"skips", Json::array({Json{{"span", {{"start", 1}, {"end", 2}}}}})}};
    EditPlan::DecodeReport report;
    auto decoded = EditPlan::fromJson(value, std::nullopt, &report);
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(decoded->notices.empty());
    EXPECT_EQ(decoded->value,
        (EditPlan{.zooms = {{"0A1B2C3D-0000-4000-8000-00000000000F", 1, 2, 0.3, 0.6, 1.8, ZoomBlock::Origin::mark(), {}}},
            .skips = {{{1, 2}, false, 4.0}}}));
    EXPECT_EQ(report, EditPlan::DecodeReport{});
    EXPECT_TRUE(noticeLines(log).empty());
}

TEST(EditPlanDecode, CutsWithoutTimesAreLeftOutAloneAndNamed)
{
    Json value = fullPlan().toJson();
    value["cuts"] = Json::array({Json{{"id", uuid1}, {"start", 1}, {"end", 2}}, Json{{"id", uuid2}, {"start", 3}},
        Json{{"id", uuid3}, {"start", 5}, {"end", 6}, {"transition", {{"kind", "blur"}, {"duration", 0.5}}}}});
    EditPlan::DecodeReport report;
    EditPlan expected = fullPlan();
    expected.cuts = {{uuid1, 1, 2, std::nullopt}, {uuid3, 5, 6, TransitionSpec{K::blur, 0.5}}};
    auto one = EditPlan::fromJson(value, std::string("B.edits.json"), &report);
    ASSERT_TRUE(one);
    EXPECT_EQ(one->value, expected);
    EXPECT_EQ(report, (EditPlan::DecodeReport{{}, {"cut 2"}}));
    EXPECT_EQ(one->notices, std::vector<std::string>{
        "B.edits.json: cut 2 is missing one of its times and was left out. Every other edit was kept."});

    Json cuts = Json::array({Json{{"id", uuid1}, {"start", 1}, {"end", 2}}});
    for (int i = 0; i < 6; ++i)
        cuts.push_back(Json{{"id", uuid2}, {"start", 3 + i}});
    auto six = EditPlan::fromJson(Json{{"cuts", cuts}}, std::string("C.edits.json"));
    ASSERT_TRUE(six);
    EXPECT_EQ(six->value.cuts.size(), 1u);
    EXPECT_EQ(six->notices, std::vector<std::string>{
        "C.edits.json: 6 cuts are missing one of their times and were left out "
        "(cut 2, cut 3, cut 4, cut 5, cut 6 and 1 more). Every other edit was kept."});
    EXPECT_EQ(plan_notices::droppedCuts("X", {"cut 1", "cut 4"}),
        "X: 2 cuts are missing one of their times and were left out (cut 1, cut 4). Every other edit was kept.");
}

TEST(EditPlanDecode, NumbersOutsideTheirRangesAreReadAtTheNearerEndAndTheOutputStaysBounded)
{
    // A skip rate of 1e-9 once gave a 2e9-s output; a zoom of 1e9 a pointer sprite too large to allocate.
    Json zoom = fullPlan().zooms[0].toJson();
    zoom["scale"] = 1e9;
    auto decoded = EditPlan::fromJson(Json{{"zooms", Json::array({zoom})},
                                          {"skips", Json::array({Json{{"span", {{"start", 2}, {"end", 18}}}, {"rate", 1e-9}}})},
                                          {"cameraScale", 1e300}, {"cameraX", 0.5}},
        std::string("B.edits.json"));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->value.zooms[0].scale, plan_limits::maxZoomScale);
    EXPECT_EQ(decoded->value.skips[0].rate, plan_limits::minSkipRate);
    EXPECT_EQ(decoded->value.cameraScale, plan_limits::maxCameraScale);
    EXPECT_EQ(decoded->notices, std::vector<std::string>{
        "B.edits.json: numbers lie outside what Plim can show, so this render reads zoom 1's scale 1e+09 as "
        "4.00, skip 1's rate 1e-09 as 1.00, cameraScale 1e+300 as 2.50. The file was left as it is; set those "
        "values in the editor to keep them."});
    // A plan made in memory is bounded where it plays.
    const EditPlan slow{.skips = {{{2, 18}, false, 1e-9}}};
    EXPECT_DOUBLE_EQ(TimeRemap::of(slow, 20).outputDuration(20), 20);
}

TEST(EditPlanDecode, EachDecodeCarriesItsOwnNoticesOneForAllItsDroppedFields)
{
    // Many decodes, on this thread and another: each hands back exactly its own notices,
    // however many came before it.
    for (int i = 0; i < 250; ++i)
        ASSERT_EQ(EditPlan::fromJson(Json{{"trimIn", "x"}}, std::string("B.edits.json"))->notices.size(), 1u);
    std::vector<std::string> other;
    std::thread([&] { other = EditPlan::fromJson(Json{{"cameraX", "x"}}, std::string("C.edits.json"))->notices; }).join();
    ASSERT_EQ(other.size(), 1u);
    EXPECT_TRUE(other[0].starts_with("C.edits.json: cameraX could not be read"));
    // Several fields make one notice: keys in field order, both advices, authored first, and
    // the detected keys joined by " and ".
    auto several = EditPlan::fromJson(Json{{"masks", 3}, {"zooms", 1}, {"skips", "x"}});
    ASSERT_TRUE(several);
    EXPECT_EQ(several->notices, std::vector<std::string>{
        "a plan sidecar: zooms, skips, masks could not be read and were left out. The rest of the edit "
        "was kept; re-apply your edits in the editor to rewrite the file. zooms and skips are detected by "
        "Plim rather than authored, so they are not lost work in themselves; any tuning you gave them by "
        "hand went with them."});
}

TEST(EditPlanDecode, FilesThatCannotBeDecodedAreReportedAndLeftByteForByte)
{
    TempDir dir;
    auto absent = EditPlan::decode(dir / "B.edits.json");
    EXPECT_FALSE(absent.value);
    EXPECT_TRUE(absent.notices.empty());

    auto repeated = [](const std::string& text, int times) {
        std::string out;
        for (int i = 0; i < times; ++i)
            out += text;
        return out;
    };
    const std::string clip = R"({"id": ")" + PlimClip::idForNumber(1) + R"(", "start": 0, "end": 1000})";
    // Name, bytes, and what the notice says of the file where the parser's words are not its own.
    const std::vector<std::array<std::string, 3>> files = {
        {"truncated.edits.json", "{\n  \"cuts\": [\n    {\"start\": 1,", ""},
        {"array.edits.json", "[1, 2, 3]\n", "It holds a JSON array where an object of edits belongs."},
        {"empty.edits.json", "", "The file is empty."},
        {"binary.edits.json", std::string("\x89PNG\r\n\x1a\n\0\0", 10), ""},
        // Plans too large to work out at once: a list past its bound, clips that add up to more than a day.
        {"many.edits.json", "{\"splits\": [0" + repeated(",0", 10'000) + "]}",
            "It holds 10001 splits, more than the 10000 a plan may hold."},
        {"long.edits.json", "{\"clips\": [" + clip + repeated("," + clip, 99) + "]}",
            "Its clips add up to 27.8 hours, more than the 24 hours a plim may last."},
    };
    for (const auto& [name, bytes, says] : files) {
        SCOPED_TRACE(name);
        writeText(dir / name, bytes);
        auto decoded = EditPlan::decode(dir / name);
        EXPECT_FALSE(decoded.value);
        const auto& lines = decoded.notices;
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_TRUE(lines[0].starts_with(undecodableStart(name))) << lines[0];
        EXPECT_GT(lines[0].size(), undecodableStart(name).size());
        EXPECT_TRUE(says.empty() || lines[0] == undecodableStart(name) + says) << lines[0];
        EXPECT_EQ(readText(dir / name), bytes);
    }

    // Damage inside a plan that decodes is not rewritten by reading it.
    fs::path damaged = dir / "B.edits.json";
    std::string bytes = "{\"cuts\": [{\"start\": 1}], \"zooms\": 5, \"trimIn\": 2, \"somethingNew\": [1]}";
    writeText(damaged, bytes);
    auto mtime = fs::last_write_time(damaged);
    auto kept = EditPlan::decode(damaged);
    EXPECT_EQ(kept.value, (EditPlan{.trimIn = 2}));
    EXPECT_EQ(kept.notices.size(), 2u); // the zooms field, and the cut without an end
    EXPECT_EQ(readText(damaged), bytes);
    EXPECT_EQ(fs::last_write_time(damaged), mtime);
}

TEST(EditPlanDecode, UnreadableFilesAreReportedAndLeftAlone)
{
    EXPECT_EQ(plan_notices::unreadable("S", "  Input/output error \n"), unreadableSentence("S", "Input/output error."));
    EXPECT_EQ(plan_notices::unreadable("S", "Done."), unreadableSentence("S", "Done."));

    TempDir dir;
    fs::path folder = dir / "C.edits.json";
    fs::create_directory(folder);
    writeText(folder / "inside", "kept");
    auto notAFile = EditPlan::decode(folder);
    EXPECT_FALSE(notAFile.value);
    // No download or permission change makes a folder of a file, so no hint of one.
    EXPECT_EQ(notAFile.notices,
        std::vector<std::string>{plan_notices::unreadable("C.edits.json", "it is a folder, not a file.", false)});
    EXPECT_EQ(notAFile.notices[0].find("download"), std::string::npos);
    EXPECT_EQ(readText(folder / "inside"), "kept");

    // A million cuts are not parsed at all: the file is larger than any plan needs.
    fs::path huge = dir / "H.edits.json";
    std::string cuts = R"({"cuts": [)";
    for (int i = 0; i < 1'000'000; ++i)
        cuts += R"({"start": 1, "end": 2},)";
    writeText(huge, cuts + "{}]}");
    auto decoded = EditPlan::decode(huge);
    EXPECT_FALSE(decoded.value);
    EXPECT_EQ(decoded.notices, std::vector<std::string>{plan_notices::unreadable("H.edits.json",
        "it holds 21.9 MB, far more than such a file can", false)});
    EXPECT_EQ(fs::file_size(huge), cuts.size() + 4);
}

TEST(EditPlanDecode, AFileWithoutReadPermissionIsReportedAndLeftAlone)
{
    if (rerunUnprivileged())
        return;
    TempDir dir;
    fs::path path = dir / "B.edits.json";
    std::string bytes = encodeJson(fullPlan().toJson());
    writeText(path, bytes);
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    auto denied = EditPlan::decode(path);
    EXPECT_FALSE(denied.value);
    EXPECT_EQ(denied.notices, std::vector<std::string>{unreadableSentence("B.edits.json", "Permission denied.")});
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    EXPECT_EQ(readText(path), bytes);
}
