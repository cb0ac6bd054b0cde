// The caption track's file: lenient reading, atomic writing beside the movie, the edits
// pointed at it, and what a render of the plim finds.

#include "captions/caption_track.h"
#include "library/plim_edits.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

namespace plim {
namespace {

using testkit::readText;
using testkit::writeText;

TEST(CaptionTrack, LineAtATimeIsTheFirstLineHoldingIt)
{
    CaptionTrack track{{{"one", 0, 1}, {"two", 1, 2}, {"late", 3, 4}}};
    EXPECT_EQ(track.line(0)->text, "one");
    EXPECT_EQ(track.line(1)->text, "two"); // a line's exact end belongs to the next
    EXPECT_EQ(track.line(2.5), nullptr);
    EXPECT_EQ(track.line(4), nullptr);
    EXPECT_EQ(track.line(-0.1), nullptr);
}

TEST(CaptionTrack, FilesReadLenientlyAndWriteBesideTheMovie)
{
    testkit::TempDir dir;
    const fs::path movie = dir / "Talk.mov";
    writeText(movie, "not really a movie");
    CaptionTrack track{{{"hello there", 0.5, 1.5}, {"日本語", 2, 3}}};
    auto written = track.writeBeside(movie);
    ASSERT_TRUE(written) << written.error().sentence;
    EXPECT_TRUE(written->empty());
    const fs::path file = dir / "Talk.captions.json";
    auto json = parseJson(readText(file));
    ASSERT_TRUE(json);
    EXPECT_EQ(*json, track.toJson());
    auto back = CaptionTrack::read(file);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->value, track);
    EXPECT_TRUE(back->notices.empty());

    // Unusable lines are dropped with one notice, the rest sorted; the file is untouched.
    const std::string messy = R"({"lines": [{"text": "b", "start": 2, "end": 3}, {"text": "a", "start": 0, "end": 1},
        {"text": " ", "start": 4, "end": 5}, {"text": "x", "start": 6}, {"text": "y", "start": 7, "end": 6.5}, 5],
        "extra": true})";
    writeText(file, messy);
    auto lenient = CaptionTrack::read(file);
    ASSERT_TRUE(lenient);
    ASSERT_EQ(lenient->value.lines.size(), 2u);
    EXPECT_EQ(lenient->value.lines[0].text, "a");
    ASSERT_EQ(lenient->notices.size(), 1u);
    EXPECT_NE(lenient->notices[0].find("4 unusable caption lines"), std::string::npos) << lenient->notices[0];
    EXPECT_EQ(readText(file), messy);

    for (const std::string bad : {"{\"lines\": 3}", "[1, 2]", "{\"lines\": [", ""}) {
        writeText(file, bad);
        auto refused = CaptionTrack::read(file);
        ASSERT_FALSE(refused) << bad;
        EXPECT_NE(refused.error().sentence.find("Talk.captions.json"), std::string::npos);
        EXPECT_NE(refused.error().sentence.find("left as it is"), std::string::npos);
        EXPECT_EQ(readText(file), bad);
    }
    EXPECT_EQ(CaptionTrack::read(dir / "none.captions.json").error().kind, Error::Kind::missing);
}

TEST(CaptionTrack, WritingPointsEditsThatReadWholeAtTheFile)
{
    testkit::TempDir dir;
    const fs::path movie = dir / "Demo.mov";
    writeText(movie, "movie");
    const CaptionTrack track{{{"first words", 0, 1}}};

    // No edits: none are made; a render finds B.captions.json by its name.
    ASSERT_TRUE(track.writeBeside(movie));
    EXPECT_FALSE(fs::exists(dir / "Demo.edits.json"));
    EXPECT_EQ(readPlimCaptions(movie, nullptr).value, track);

    // Edits that read: they name the file afterwards, their other keys kept.
    ASSERT_TRUE(PlimEdits{.plan = {.trimIn = 1.5}}.write(movie, "test"));
    ASSERT_TRUE(track.writeBeside(movie));
    auto reread = PlimEdits::read(movie);
    ASSERT_TRUE(reread && reread->value);
    EXPECT_EQ(reread->value->captionsFile, "Demo.captions.json");
    EXPECT_EQ(reread->value->plan.trimIn, 1.5);

    // Edits read only in part, or newer: the captions are written, the edits left byte for byte.
    for (const std::string kept : {R"({"version": 2, "trimIn": 1, "voiceovers": 7})", R"({"version": 9})"}) {
        writeText(dir / "Demo.edits.json", kept);
        auto notices = track.writeBeside(movie);
        ASSERT_TRUE(notices);
        ASSERT_EQ(notices->size(), 1u) << kept;
        EXPECT_NE((*notices)[0].find("left as it is"), std::string::npos);
        EXPECT_EQ(readText(dir / "Demo.edits.json"), kept);
    }

    // The file the edits name wins over B.captions.json; a name leading out of the folder,
    // a missing file or a damaged one gives no captions and says why.
    writeText(dir / "Other.json", R"({"lines": [{"text": "other", "start": 0, "end": 2}]})");
    PlimEdits naming{.captionsFile = "Other.json"};
    auto other = readPlimCaptions(movie, &naming);
    ASSERT_TRUE(other.value);
    EXPECT_EQ(other.value->lines.at(0).text, "other");
    for (const std::string name : {"../Other.json", "Gone.json"}) {
        naming.captionsFile = name;
        auto none = readPlimCaptions(movie, &naming);
        EXPECT_FALSE(none.value) << name;
        EXPECT_EQ(none.notices.size(), 1u) << name;
    }
    writeText(dir / "Demo.captions.json", "{broken");
    auto damaged = readPlimCaptions(movie, nullptr);
    EXPECT_FALSE(damaged.value);
    ASSERT_EQ(damaged.notices.size(), 1u);
    EXPECT_NE(damaged.notices[0].find("no captions are shown"), std::string::npos);
    EXPECT_EQ(readText(dir / "Demo.captions.json"), "{broken");
}

} // namespace
} // namespace plim
