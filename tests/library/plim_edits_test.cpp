#include "library/plim_edits.h"
#include "base/log.h"
#include "testkit/testkit.h"

#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;

namespace {

const std::string idA = "7A4E0C11-0000-4000-8000-000000000001";
const std::string idB = "7A4E0C11-0000-4000-8000-000000000002";
const std::string idC = "0B1D3F6A-93C2-4E55-8D11-2A6B8C0E4F71";

// Edits with every field set to something other than its empty value.
PlimEdits fullEdits()
{
    PlimEdits e;
    ZoomBlock zoom;
    zoom.id = idC;
    zoom.start = 1;
    zoom.end = 3;
    zoom.centerX = 0.25;
    zoom.centerY = 0.75;
    zoom.scale = 1.8;
    zoom.origin = ZoomBlock::Origin::clickCluster(3);
    e.plan.zooms = {zoom};
    e.plan.skips = {SkipDecision{{4, 6}, false, 4.0}};
    e.plan.cameraCorner = "tl";
    e.plan.cameraX = 0.1;
    e.plan.cameraY = 0.2;
    e.plan.masks = {MaskRegion{idA, 0.1, 0.1, 0.2, 0.2, 0, 5, MaskRegion::Style::pixelate}};
    e.plan.cameraScale = 1.5;
    e.plan.cameraShape = "card";
    e.plan.trimIn = 0.5;
    e.plan.trimOut = 9.5;
    e.plan.cuts = {CutRange{idB, 2, 2.5, TransitionSpec{TransitionSpec::Kind::blur, 0.4}}};
    e.plan.cameraMirror = true;
    e.plan.cameraBorder = false;
    e.plan.splits = {3.25};
    e.plan.fadeIn = TransitionSpec{TransitionSpec::Kind::dipToBlack, 0.3};
    e.plan.fadeOut = TransitionSpec{TransitionSpec::Kind::punch, 0.6};
    e.plan.taps = {TapMark{idA, 1.5, 0.3, 0.4}};
    e.plan.clips = std::vector<PlimClip>{PlimClip{idA, 0, 4}, PlimClip{idB, 5, 9}};
    e.voiceovers = {PlimEdits::Voiceover{idB, 1.0, 2.5, "voice-1.m4a", 0.2}};
    e.captionsFile = "B.captions.json";
    PlimLook look;
    look.backdrop = PlimLook::Backdrop::lagoon;
    look.shape = PlimLook::Shape::square;
    e.look = look;
    e.aimedZooms = {idC};
    e.writtenBy = plimNameAndVersion();
    return e;
}

// A value of a type the key never holds.
Json wrongTypeFor(const Json& value)
{
    if (value.is_string())
        return 12;
    if (value.is_number())
        return "twelve";
    if (value.is_boolean())
        return "yes";
    if (value.is_array())
        return "a list";
    return Json::array({1, 2});
}

PlimEdits::ReadResult decodeText(const std::string& text, std::vector<std::string>* dropped = nullptr)
{
    return PlimEdits::decode(Json::parse(text), "B.edits.json", std::nullopt, dropped);
}

} // namespace

TEST(PlimEdits, WritesSortedVersionTwoAndReadsBackEveryField)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    PlimEdits full = fullEdits();
    full.unknownKeys["laterKey"] = Json{{"kept", true}};
    ASSERT_TRUE(full.write(movie, plimNameAndVersion()));

    std::string text = readText(dir / "B.edits.json");
    EXPECT_NE(text.find("\"version\": 2"), std::string::npos);
    EXPECT_NE(text.find("\"writtenBy\": \"Plim 0.1.0\""), std::string::npos);
    EXPECT_LT(text.find("\"aimedZooms\""), text.find("\"zooms\""));

    auto read = PlimEdits::read(movie);
    ASSERT_EQ(read.kind, PlimEdits::ReadResult::Kind::edits) << read.sentence;
    EXPECT_EQ(read.edits, full);
    EXPECT_EQ(read.edits.unknownKeys["laterKey"]["kept"], true);
    EXPECT_FALSE(read.plim3Stage);
}

TEST(PlimEdits, ADamagedFieldOfEveryTypeCostsOnlyThatField)
{
    const PlimEdits full = fullEdits();
    const Json json = full.toJson(plimNameAndVersion());

    // How each key's field looks after it was dropped.
    std::map<std::string, std::function<void(PlimEdits&)>> cleared{
        {"zooms", [](PlimEdits& e) { e.plan.zooms.clear(); }},
        {"skips", [](PlimEdits& e) { e.plan.skips.clear(); }},
        {"cameraCorner", [](PlimEdits& e) { e.plan.cameraCorner.reset(); }},
        {"cameraX", [](PlimEdits& e) { e.plan.cameraX.reset(); }},
        {"cameraY", [](PlimEdits& e) { e.plan.cameraY.reset(); }},
        {"masks", [](PlimEdits& e) { e.plan.masks.clear(); }},
        {"cameraScale", [](PlimEdits& e) { e.plan.cameraScale.reset(); }},
        {"cameraShape", [](PlimEdits& e) { e.plan.cameraShape.reset(); }},
        {"trimIn", [](PlimEdits& e) { e.plan.trimIn.reset(); }},
        {"trimOut", [](PlimEdits& e) { e.plan.trimOut.reset(); }},
        {"cuts", [](PlimEdits& e) { e.plan.cuts.clear(); }},
        {"cameraMirror", [](PlimEdits& e) { e.plan.cameraMirror.reset(); }},
        {"cameraBorder", [](PlimEdits& e) { e.plan.cameraBorder.reset(); }},
        {"splits", [](PlimEdits& e) { e.plan.splits.clear(); }},
        {"fadeIn", [](PlimEdits& e) { e.plan.fadeIn.reset(); }},
        {"fadeOut", [](PlimEdits& e) { e.plan.fadeOut.reset(); }},
        {"taps", [](PlimEdits& e) { e.plan.taps.clear(); }},
        {"clips", [](PlimEdits& e) { e.plan.clips.reset(); }},
        {"voiceovers", [](PlimEdits& e) { e.voiceovers.clear(); }},
        {"captionsFile", [](PlimEdits& e) { e.captionsFile.reset(); }},
        {"look", [](PlimEdits& e) { e.look.reset(); }},
        {"aimedZooms", [](PlimEdits& e) { e.aimedZooms.clear(); }},
        {"writtenBy", [](PlimEdits& e) { e.writtenBy.reset(); }},
    };

    for (auto it = json.begin(); it != json.end(); ++it) {
        if (it.key() == "version")
            continue;
        SCOPED_TRACE(it.key());
        ASSERT_TRUE(cleared.count(it.key())) << "no expectation for key " << it.key();
        Json damaged = json;
        damaged[it.key()] = wrongTypeFor(it.value());
        LogCapture log;
        auto read = PlimEdits::decode(damaged, "B.edits.json");
        ASSERT_EQ(read.kind, PlimEdits::ReadResult::Kind::edits) << read.sentence;
        PlimEdits expected = full;
        cleared[it.key()](expected);
        EXPECT_EQ(read.edits, expected);
        // A damaged authored field is reported with the file's name.
        EXPECT_EQ(log.contains("B.edits.json: "), it.key() != "writtenBy") << it.key();
    }
}

TEST(PlimEdits, DamageInsideAFieldKeepsItsGoodParts)
{
    Json json = fullEdits().toJson(plimNameAndVersion());
    json["look"]["padding"] = "wide";
    json["aimedZooms"] = Json::array({idC, "not-a-uuid"});
    json["voiceovers"].push_back(Json{{"id", idA}, {"start", 2}});
    std::vector<std::string> dropped;
    LogCapture log;
    auto read = PlimEdits::decode(json, "B.edits.json", std::nullopt, &dropped);
    ASSERT_EQ(read.kind, PlimEdits::ReadResult::Kind::edits);
    EXPECT_EQ(dropped, (std::vector<std::string>{"aimedZooms", "look.padding", "voiceovers"}));
    ASSERT_TRUE(read.edits.look);
    EXPECT_EQ(read.edits.look->backdrop, PlimLook::Backdrop::lagoon);
    EXPECT_EQ(read.edits.look->padding, PlimLook{}.padding);
    EXPECT_EQ(read.edits.aimedZooms, std::vector<std::string>{idC});
    EXPECT_EQ(read.edits.voiceovers.size(), 1u);
    EXPECT_TRUE(log.contains("B.edits.json: aimedZooms, look.padding, voiceovers could not be read and were left out."));
}

TEST(PlimEdits, VersionRules)
{
    {
        auto read = decodeText(R"({"version": 2.5, "trimIn": 1})");
        EXPECT_EQ(read.kind, PlimEdits::ReadResult::Kind::unreadable);
        EXPECT_EQ(read.sentence, "B.edits.json could not be read at all, so this plim falls back to its automatic "
                                 "edit. The file was left as it is. The file says: The version field is not a whole "
                                 "number.");
    }
    {
        auto read = decodeText(R"({"version": "2"})");
        EXPECT_EQ(read.kind, PlimEdits::ReadResult::Kind::unreadable);
    }
    {
        auto read = decodeText(R"({"version": 3, "writtenBy": "   "})");
        EXPECT_EQ(read.kind, PlimEdits::ReadResult::Kind::refused);
        EXPECT_EQ(read.sentence, "B.edits.json was saved by a newer Plim (edit format 3), which is newer than this "
                                 "Plim 0.1.0. To open its edits here, update Plim with Check for Updates. Nothing in "
                                 "the file was changed.");
    }
    {
        auto read = decodeText(R"({"version": 7, "writtenBy": "  Plim 9.2 "})");
        EXPECT_EQ(read.kind, PlimEdits::ReadResult::Kind::refused);
        EXPECT_EQ(read.sentence.rfind("B.edits.json was saved by Plim 9.2, which is newer than this Plim 0.1.0.", 0), 0u);
    }
    {
        auto read = decodeText(R"({"version": 3.0})");
        EXPECT_EQ(read.kind, PlimEdits::ReadResult::Kind::refused);
    }
    {
        auto read = decodeText(R"({"trimIn": 1.5})");
        ASSERT_EQ(read.kind, PlimEdits::ReadResult::Kind::edits);
        EXPECT_EQ(read.edits.version, 1);
        EXPECT_EQ(read.edits.plan.trimIn, 1.5);
    }
    {
        auto read = decodeText(R"({"version": 0})");
        EXPECT_EQ(read.kind, PlimEdits::ReadResult::Kind::unreadable);
    }
}

TEST(PlimEdits, ACutWithoutTimesIsLeftOutAndTheRestKept)
{
    auto read = decodeText(R"({"version": 2, "trimOut": 8,
        "cuts": [{"id": ")" + idA + R"(", "start": 1, "end": 2},
                 {"id": ")" + idB + R"(", "start": 3}]})");
    ASSERT_EQ(read.kind, PlimEdits::ReadResult::Kind::edits);
    ASSERT_EQ(read.edits.plan.cuts.size(), 1u);
    EXPECT_EQ(read.edits.plan.cuts[0].id, idA);
    EXPECT_EQ(read.edits.plan.trimOut, 8);
}

TEST(PlimEdits, FilesThatCannotBeReadAreReportedAndLeftAlone)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    fs::path file = dir / "B.edits.json";

    EXPECT_EQ(PlimEdits::read(movie).kind, PlimEdits::ReadResult::Kind::none);
    EXPECT_FALSE(fs::exists(file));

    struct Case {
        std::string bytes;
        std::string says;
    };
    for (const Case& c : {Case{"", "The file says: The file is empty."},
             Case{"{\"trimIn\": 1,", "The file says: Parse error at line 1"},
             Case{"[1, 2]", "The file says: It holds a list where the edits belong."},
             Case{R"({"version": 4})", "which is newer than this Plim 0.1.0."}}) {
        SCOPED_TRACE(c.bytes);
        writeText(file, c.bytes);
        LogCapture log;
        auto read = PlimEdits::read(movie);
        EXPECT_NE(read.kind, PlimEdits::ReadResult::Kind::edits);
        EXPECT_NE(read.sentence.find(c.says), std::string::npos) << read.sentence;
        EXPECT_TRUE(log.contains(read.sentence));
        EXPECT_EQ(readText(file), c.bytes);
    }

    if (geteuid() != 0) {
        writeText(file, R"({"version": 2, "trimIn": 1})");
        chmod(file.c_str(), 0);
        auto read = PlimEdits::read(movie);
        EXPECT_EQ(read.kind, PlimEdits::ReadResult::Kind::unreadable);
        EXPECT_NE(read.sentence.find("B.edits.json is on disk but could not be read"), std::string::npos);
        chmod(file.c_str(), 0644);
        EXPECT_EQ(readText(file), R"({"version": 2, "trimIn": 1})");
    }
}

TEST(PlimEdits, AnOlderStageFileIsReadBesideTheEdits)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    writeText(dir / "B.stage.json", R"({"paddingPX": 80, "backdrop": "plum"})");
    auto none = PlimEdits::read(movie);
    EXPECT_EQ(none.kind, PlimEdits::ReadResult::Kind::none);
    ASSERT_TRUE(none.plim3Stage);
    EXPECT_EQ((*none.plim3Stage)["paddingPX"], 80);

    writeText(dir / "B.edits.json", R"({"trimIn": 2})");
    auto read = PlimEdits::read(movie);
    ASSERT_EQ(read.kind, PlimEdits::ReadResult::Kind::edits);
    ASSERT_TRUE(read.edits.plim3Stage);
    EXPECT_EQ((*read.edits.plim3Stage)["backdrop"], "plum");

    // Writing never carries the older stage into the edits file, nor touches it.
    ASSERT_TRUE(read.edits.write(movie, plimNameAndVersion()));
    EXPECT_FALSE(readJsonFile(dir / "B.edits.json")->contains("plim3Stage"));
    EXPECT_EQ(readText(dir / "B.stage.json"), R"({"paddingPX": 80, "backdrop": "plum"})");

    writeText(dir / "B.stage.json", "not json");
    LogCapture log;
    auto damaged = PlimEdits::read(movie);
    EXPECT_EQ(damaged.kind, PlimEdits::ReadResult::Kind::edits);
    EXPECT_FALSE(damaged.edits.plim3Stage);
    EXPECT_TRUE(log.contains("B.stage.json could not be read"));
    EXPECT_EQ(readText(dir / "B.stage.json"), "not json");
}

TEST(PlimEdits, ANumberThatIsNotFiniteIsNeverWritten)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    writeText(dir / "B.edits.json", "previous");
    PlimEdits edits;
    edits.voiceovers = {PlimEdits::Voiceover{idA, std::nan(""), 1, "v.m4a"}};
    auto written = edits.write(movie, plimNameAndVersion());
    ASSERT_FALSE(written);
    EXPECT_NE(written.error().sentence.find("not finite"), std::string::npos);
    EXPECT_EQ(readText(dir / "B.edits.json"), "previous");
}
