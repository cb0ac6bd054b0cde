#include "library/plim_edits.h"
#include "base/log.h"
#include "testkit/testkit.h"

#include <cmath>
#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;
using Kind = Error::Kind;

namespace {

const std::string idA = "7A4E0C11-0000-4000-8000-000000000001";
const std::string idB = "7A4E0C11-0000-4000-8000-000000000002";
const std::string idC = "0B1D3F6A-93C2-4E55-8D11-2A6B8C0E4F71";

// Edits with every field set to something other than its empty value.
PlimEdits fullEdits()
{
    using T = TransitionSpec;
    PlimEdits e;
    e.plan = EditPlan{.zooms = {ZoomBlock{idC, 1, 3, 0.25, 0.75, 1.8, ZoomBlock::Origin::clickCluster(3)}},
        .skips = {SkipDecision{{4, 6}, false, 4.0}}, .cameraCorner = "tl", .cameraX = 0.1, .cameraY = 0.2,
        .masks = {MaskRegion{idA, 0.1, 0.1, 0.2, 0.2, 0, 5, MaskRegion::Style::pixelate}}, .cameraScale = 1.5,
        .cameraShape = "card", .trimIn = 0.5, .trimOut = 9.5, .cuts = {CutRange{idB, 2, 2.5, T{T::Kind::blur, 0.4}}},
        .cameraMirror = true, .cameraBorder = false, .splits = {3.25}, .fadeIn = T{T::Kind::dipToBlack, 0.3},
        .fadeOut = T{T::Kind::punch, 0.6}, .taps = {TapMark{idA, 1.5, 0.3, 0.4}},
        .clips = std::vector<PlimClip>{{idA, 0, 4}, {idB, 5, 9}}};
    e.voiceovers = {PlimEdits::Voiceover{idB, 1.0, 2.5, "voice-1.m4a", 0.2}};
    e.captionsFile = "B.captions.json";
    e.look = PlimLook{.shape = PlimLook::Shape::square, .backdrop = PlimLook::Backdrop::lagoon, .padding = 0.1};
    e.aimedZooms = {idC};
    e.writtenBy = plimNameAndVersion();
    return e;
}

Result<Decoded<PlimEdits>> decode(const Json& json, std::vector<std::string>* dropped = nullptr)
{
    return PlimEdits::decode(json, "B.edits.json", std::nullopt, dropped);
}

// The edits decoded from `json`, or empty ones when it fails.
PlimEdits decodedEdits(const Json& json) { return decode(json).value_or(Decoded<PlimEdits>{}).value; }

} // namespace

TEST(PlimEdits, WritesSortedVersionTwoAndReadsBackEveryField)
{
    TempDir dir;
    PlimEdits full = fullEdits();
    full.unknownKeys["laterKey"] = Json{{"kept", true}};
    ASSERT_TRUE(full.write(dir / "B.mov", plimNameAndVersion()));
    std::string text = readText(dir / "B.edits.json");
    EXPECT_NE(text.find("\"version\": 2,"), std::string::npos);
    EXPECT_NE(text.find("\"writtenBy\": \"Plim 0.1.0\""), std::string::npos);
    EXPECT_LT(text.find("\"aimedZooms\""), text.find("\"zooms\""));
    auto read = PlimEdits::read(dir / "B.mov");
    ASSERT_TRUE(read && read->value) << (read ? "no edits" : read.error().sentence);
    EXPECT_EQ(*read->value, full);
    EXPECT_FALSE(read->value->plim3Stage);
}

TEST(PlimEdits, ADamagedFieldCostsOnlyThatFieldOrItsDamagedParts)
{
    const Json json = fullEdits().toJson(plimNameAndVersion());
    for (auto it = json.begin(); it != json.end(); ++it) {
        if (it.key() == "version")
            continue;
        Json damaged = json, without = json;
        damaged[it.key()] = it->is_boolean() ? Json("yes") : Json(true); // a type the key never holds
        without.erase(it.key());
        const PlimEdits expected = decodedEdits(without);
        EXPECT_NE(expected, fullEdits()) << it.key();
        auto read = decode(damaged);
        ASSERT_TRUE(read) << it.key() << ": " << read.error().sentence;
        EXPECT_EQ(read->value, expected) << it.key();
        // A damaged authored field is reported with the file's name; the writer is only a label.
        EXPECT_EQ(read->notices.size() == 1 && read->notices[0].starts_with("B.edits.json: "), it.key() != "writtenBy")
            << it.key();
    }

    Json partly = json;
    partly["look"]["padding"] = "wide";
    partly["aimedZooms"] = Json::array({idC, "not-a-uuid"});
    partly["voiceovers"].push_back(Json{{"id", idA}, {"start", 2}});
    partly["cuts"].push_back(Json{{"id", idA}, {"start", 3}}); // a cut without its end
    std::vector<std::string> dropped;
    auto read = decode(partly, &dropped);
    ASSERT_TRUE(read) << read.error().sentence;
    EXPECT_EQ(dropped, (std::vector<std::string>{"aimedZooms", "look.padding", "voiceovers"}));
    PlimEdits expected = fullEdits();
    expected.look->padding = PlimLook{}.padding;
    EXPECT_EQ(read->value, expected);
    ASSERT_EQ(read->notices.size(), 2u); // the plan's cut, then the edits' own fields
    EXPECT_TRUE(read->notices[1].starts_with(
        "B.edits.json: aimedZooms, look.padding, voiceovers could not be read and were left out."));
}

TEST(PlimEdits, NewerVersionsAreRefusedAndBadOnesUnreadable)
{
    const std::string newer = ", which is newer than this Plim 0.1.0. To open its edits here, update Plim through "
                              "your package manager. Nothing in the file was changed.";
    const std::string bad = "B.edits.json could not be read at all, so this plim falls back to its automatic edit. The "
                            "file was left as it is. The file says: The version field ";
    for (auto [text, kind, sentence] : std::vector<std::tuple<std::string, Kind, std::string>>{
             {R"({"version": 2.5, "trimIn": 1})", Kind::corrupt, bad + "is not a whole number."},
             {R"({"version": "2"})", Kind::corrupt, bad + "is not a whole number."},
             {R"({"version": 0})", Kind::corrupt, bad + "says 0, and edit formats start at 1."},
             {R"({"version": 3, "writtenBy": "   "})", Kind::refused, "B.edits.json was saved by a newer Plim (edit format 3)" + newer},
             {R"({"version": 3.0})", Kind::refused, "B.edits.json was saved by a newer Plim (edit format 3)" + newer},
             {R"({"version": 7, "writtenBy": "  Plim 9.2 "})", Kind::refused, "B.edits.json was saved by Plim 9.2" + newer},
             {R"({"version": 18446744073709551615})", Kind::refused,
                 "B.edits.json was saved by a newer Plim (edit format 18446744073709551615)" + newer}}) {
        auto read = decode(Json::parse(text));
        ASSERT_FALSE(read) << text;
        EXPECT_EQ(std::pair(read.error().kind, read.error().sentence), std::pair(kind, sentence)) << text;
    }
    auto first = decode(Json::parse(R"({"trimIn": 1.5})"));
    ASSERT_TRUE(first) << first.error().sentence;
    EXPECT_EQ(std::pair(first->value.version, first->value.plan.trimIn), std::pair(int64_t(1), std::optional(1.5)));
}

TEST(PlimEdits, FilesThatCannotBeUsedAreReportedAndLeftAlone)
{
    TempDir dir;
    fs::path movie = dir / "B.mov", file = dir / "B.edits.json";
    auto none = PlimEdits::read(movie);
    EXPECT_TRUE(none && !none->value && none->notices.empty());
    EXPECT_FALSE(fs::exists(file));
    for (auto [bytes, kind, says] : std::vector<std::tuple<std::string, Kind, std::string>>{
             {"", Kind::corrupt, "The file says: The file is empty."},
             {"{\"trimIn\": 1,", Kind::corrupt, "The file says: Parse error at line 1"},
             {"{\"trimIn\": 1e400}", Kind::corrupt, "The file says: A number in it is too large to hold."},
             {"{\"trimIn\": \"\xff", Kind::corrupt, "last read: '\"\\xff'."},
             {"[1, 2]", Kind::corrupt, "The file says: It holds a list where the edits belong."}}) {
        writeText(file, bytes);
        LogCapture log;
        auto read = PlimEdits::read(movie);
        ASSERT_FALSE(read) << bytes;
        EXPECT_EQ(read.error().kind, kind) << bytes;
        EXPECT_NE(read.error().sentence.find(says), std::string::npos) << read.error().sentence;
        EXPECT_TRUE(log.contains(read.error().sentence));
        EXPECT_EQ(readText(file), bytes);
    }

    // A number that is not finite is never written.
    const std::string before = readText(file);
    PlimEdits edits{.voiceovers = {PlimEdits::Voiceover{idA, std::nan(""), 1, "v.m4a"}}};
    EXPECT_EQ(edits.write(movie, plimNameAndVersion()).error().sentence, "The edits for B hold a number that is not "
        "finite, so they were not written. B.edits.json was left as it was.");
    EXPECT_EQ(readText(file), before);

    // Nor a file name that JSON cannot hold as it is.
    edits.voiceovers = {PlimEdits::Voiceover{idA, 0, 1, "take\xff.m4a"}};
    EXPECT_EQ(edits.write(movie, plimNameAndVersion()).error().sentence, "The edits for B name the file take\\xff.m4a, "
        "whose name is not valid UTF-8 text, so they were not written. B.edits.json was left as it was; rename that "
        "file and add it again.");
    edits.voiceovers.clear();
    edits.captionsFile = "B\xc3.captions.json";
    EXPECT_FALSE(edits.write(movie, plimNameAndVersion()));
    EXPECT_EQ(readText(file), before);

    // A folder in the file's place is no download in progress.
    fs::remove(file);
    fs::create_directory(file);
    auto folder = PlimEdits::read(movie);
    ASSERT_FALSE(folder);
    EXPECT_EQ(folder.error().kind, Kind::unreadable);
    EXPECT_NE(folder.error().sentence.find("it is a folder, not a file."), std::string::npos) << folder.error().sentence;
    EXPECT_EQ(folder.error().sentence.find("download"), std::string::npos) << folder.error().sentence;
}

TEST(PlimEdits, AnOlderStageFileIsReadBesideTheEditsAndNeverWritten)
{
    TempDir dir;
    const std::string stage = R"({"paddingPX": 80, "backdrop": "plum"})";
    writeText(dir / "B.stage.json", stage);
    writeText(dir / "B.edits.json", R"({"trimIn": 2})");
    auto read = PlimEdits::read(dir / "B.mov");
    ASSERT_TRUE(read && read->value);
    EXPECT_EQ(read->value->plim3Stage, Json::parse(stage));
    EXPECT_EQ(PlimEdits::readPlim3Stage(dir / "B.mov"), Json::parse(stage));
    ASSERT_TRUE(read->value->write(dir / "B.mov", plimNameAndVersion()));
    EXPECT_FALSE(readJsonFile(dir / "B.edits.json")->contains("plim3Stage"));
    EXPECT_EQ(readText(dir / "B.stage.json"), stage);

    writeText(dir / "B.stage.json", "not json");
    LogCapture log;
    auto damaged = PlimEdits::read(dir / "B.mov");
    ASSERT_TRUE(damaged && damaged->value);
    EXPECT_FALSE(damaged->value->plim3Stage);
    EXPECT_TRUE(log.contains("B.stage.json could not be read"));
    EXPECT_EQ(readText(dir / "B.stage.json"), "not json");
}

TEST(PlimEdits, TheCaptionsFileIsOpenedOnlyInsideThePlimsFolderAndHeldOpen)
{
    TempDir dir, elsewhere;
    writeText(dir / "B.captions.json", R"({"lines": []})");
    writeText(elsewhere / "private.json", "private");
    fs::create_symlink(elsewhere / "private.json", dir / "link.json");
    fs::create_directory(dir / "sub");
    fs::create_symlink("../B.captions.json", dir / "sub" / "inside.json");
    PlimEdits edits;
    EXPECT_FALSE(edits.captionsFileOpened(dir / "B.mov").has_value());
    for (const char* inside : {"B.captions.json", "sub/inside.json"}) {
        edits.captionsFile = inside;
        auto held = *edits.captionsFileOpened(dir / "B.mov");
        ASSERT_TRUE(held) << inside << ": " << held.error().sentence;
        EXPECT_EQ(readText(held->reopenPath()), R"({"lines": []})");
    }
    for (const std::string& outside : {(elsewhere / "private.json").string(), std::string("../private.json"),
             std::string("link.json"), std::string("sub/../../private.json")}) {
        edits.captionsFile = outside;
        auto found = *edits.captionsFileOpened(dir / "B.mov");
        ASSERT_FALSE(found) << outside;
        EXPECT_EQ(found.error().sentence, "The captions file names a file outside the plim's folder, so it was left "
                                          "out. Nothing else changed.");
    }

    // A link swapped in at the name once the file is open is never followed: the held file is read.
    edits.captionsFile = "B.captions.json";
    auto held = *edits.captionsFileOpened(dir / "B.mov");
    ASSERT_TRUE(held);
    fs::create_symlink(elsewhere / "private.json", dir / "swap.json");
    fs::rename(dir / "swap.json", dir / "B.captions.json");
    EXPECT_EQ(readText(held->reopenPath()), R"({"lines": []})");
    EXPECT_EQ(edits.captionsFileOpened(dir / "B.mov")->error().kind, Error::Kind::refused);
}
