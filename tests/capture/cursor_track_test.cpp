#include "base/log.h"
#include "capture/cursor_track.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;

namespace {

const char* const minimalTrack = R"({"displayX": 10, "displayY": -20.5, "displayWidth": 1440, "displayHeight": 900, "scale": 2})";

CursorTrack sampleTrack()
{
    CursorTrack track;
    track.displayX = -1920;
    track.displayY = 0;
    track.displayWidth = 1920;
    track.displayHeight = 1080;
    track.scale = 2;
    track.videoStartOffsetMS = 48;
    track.samples = {{0, 1.5, -3.2, 0}, {17, 2.3, 4.1, 1}};
    track.clicks = {{17, 2.3456, -7.891}};
    track.marks = {{500}};
    track.frames = {{1000, 5, 6, 700, 500}};
    return track;
}

} // namespace

TEST(CursorTrack, RoundsHalvesAwayFromZero)
{
    EXPECT_EQ(roundToTenth(2.24), 2.2);
    EXPECT_EQ(roundToTenth(2.25), 2.3);
    EXPECT_EQ(roundToTenth(-0.25), -0.3);
    EXPECT_EQ(roundToTenth(-2.24), -2.2);
    EXPECT_EQ(roundToTenth(0.04), 0.0);
    EXPECT_EQ(roundToTenth(1919.95), 1920.0);
}

TEST(CursorTrack, WritesSortedKeysAndReadsBackEqual)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    CursorTrack track = sampleTrack();
    ASSERT_TRUE(track.write(movie));
    ASSERT_TRUE(fs::exists(dir / "B.cursor.json"));

    std::string text = readText(dir / "B.cursor.json");
    // Sorted keys: clicks comes first, videoStartOffsetMS last; absent optionals left out.
    EXPECT_LT(text.find("\"clicks\""), text.find("\"displayHeight\""));
    EXPECT_LT(text.find("\"scale\""), text.find("\"videoStartOffsetMS\""));
    EXPECT_EQ(text.find("subjectKind"), std::string::npos);
    EXPECT_EQ(text.find("cameraOffsetMS"), std::string::npos);

    auto back = CursorTrack::read(movie);
    ASSERT_TRUE(back) << back.error().sentence;
    EXPECT_EQ(*back, track);

    track.cameraOffsetMS = -120;
    track.subjectKind = "device";
    ASSERT_TRUE(track.write(movie));
    auto again = CursorTrack::read(movie);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->cameraOffsetMS, std::optional<int64_t>(-120));
    EXPECT_EQ(*again, track);
}

TEST(CursorTrack, EmptyArraysAreAlwaysWritten)
{
    Json json = CursorTrack::deviceTrack(1170, 2532).toJson();
    for (const char* key : {"samples", "clicks", "marks", "frames"}) {
        ASSERT_TRUE(json.contains(key)) << key;
        EXPECT_TRUE(json[key].is_array() && json[key].empty()) << key;
    }
    EXPECT_EQ(json["subjectKind"], "device");
    EXPECT_EQ(json["displayWidth"], 1170.0);
    EXPECT_EQ(json["displayHeight"], 2532.0);
    EXPECT_EQ(json["scale"], 1.0);
    EXPECT_EQ(json["videoStartOffsetMS"], 0);
    EXPECT_FALSE(json.contains("cameraOffsetMS"));
}

TEST(CursorTrack, MissingOptionalKeysTakeTheirDefaults)
{
    TempDir dir;
    writeText(dir / "B.cursor.json", minimalTrack);
    auto track = CursorTrack::read(dir / "B.mov");
    ASSERT_TRUE(track) << track.error().sentence;
    EXPECT_EQ(track->displayX, 10);
    EXPECT_EQ(track->displayY, -20.5);
    EXPECT_EQ(track->displayWidth, 1440);
    EXPECT_EQ(track->displayHeight, 900);
    EXPECT_EQ(track->scale, 2);
    EXPECT_EQ(track->videoStartOffsetMS, 0);
    EXPECT_FALSE(track->subjectKind);
    EXPECT_FALSE(track->cameraOffsetMS);
    EXPECT_TRUE(track->samples.empty());
    EXPECT_TRUE(track->clicks.empty());
    EXPECT_TRUE(track->marks.empty());
    EXPECT_TRUE(track->frames.empty());
}

TEST(CursorTrack, EachMissingGeometryKeyFailsAndLeavesTheFileAlone)
{
    TempDir dir;
    for (const char* key : {"displayX", "displayY", "displayWidth", "displayHeight", "scale"}) {
        Json json = sampleTrack().toJson();
        json.erase(key);
        std::string bytes = json.dump(4) + "\n  ";
        writeText(dir / "B.cursor.json", bytes);
        auto track = CursorTrack::read(dir / "B.mov");
        ASSERT_FALSE(track) << key;
        EXPECT_EQ(track.error().kind, CursorTrack::ReadError::Kind::incomplete);
        EXPECT_NE(track.error().sentence.find(key), std::string::npos) << track.error().sentence;
        EXPECT_NE(track.error().sentence.find("B.cursor.json"), std::string::npos);
        EXPECT_NE(track.error().sentence.find("left as it is"), std::string::npos);
        EXPECT_EQ(track.error().sentence.back(), '.');
        EXPECT_EQ(readText(dir / "B.cursor.json"), bytes) << key;
    }
    // A geometry key of the wrong type counts as missing, and all missing ones are named.
    writeText(dir / "B.cursor.json", R"({"displayX": "0", "displayY": 0, "displayWidth": 1, "displayHeight": 1})");
    auto track = CursorTrack::read(dir / "B.mov");
    ASSERT_FALSE(track);
    EXPECT_NE(track.error().sentence.find("displayX and scale"), std::string::npos) << track.error().sentence;
}

TEST(CursorTrack, UnreadableAndCorruptFilesFailWithSentencesAndStayUntouched)
{
    TempDir dir;
    auto absent = CursorTrack::read(dir / "B.mov");
    ASSERT_FALSE(absent);
    EXPECT_EQ(absent.error().kind, CursorTrack::ReadError::Kind::absent);
    EXPECT_FALSE(fs::exists(dir / "B.cursor.json"));

    for (std::string bytes : {std::string("{\"displayX\": 1,"), std::string("[1, 2, 3]"), std::string(""),
             std::string("\xff\xfe{}")}) {
        writeText(dir / "B.cursor.json", bytes);
        auto track = CursorTrack::read(dir / "B.mov");
        ASSERT_FALSE(track);
        EXPECT_EQ(track.error().kind, CursorTrack::ReadError::Kind::corrupt);
        EXPECT_NE(track.error().sentence.find("B.cursor.json"), std::string::npos);
        EXPECT_EQ(readText(dir / "B.cursor.json"), bytes);
    }

    if (geteuid() != 0) {
        writeText(dir / "B.cursor.json", minimalTrack);
        chmod((dir / "B.cursor.json").c_str(), 0);
        auto track = CursorTrack::read(dir / "B.mov");
        ASSERT_FALSE(track);
        EXPECT_EQ(track.error().kind, CursorTrack::ReadError::Kind::unreadable);
        chmod((dir / "B.cursor.json").c_str(), 0644);
        EXPECT_EQ(readText(dir / "B.cursor.json"), minimalTrack);
    }
}

TEST(CursorTrack, UnusableEntriesAreDroppedAndDisorderRepairedWithANotice)
{
    TempDir dir;
    std::string bytes = R"({"displayX": 0, "displayY": 0, "displayWidth": 100, "displayHeight": 100, "scale": 1,
        "videoStartOffsetMS": "soon",
        "samples": [{"t": 20, "x": 1, "y": 2, "k": 1}, {"t": 10, "x": 3, "y": 4}, {"x": 5, "y": 6}, {"t": 1.5, "x": 0, "y": 0}],
        "clicks": [{"t": 5, "x": 1}],
        "marks": "none",
        "frames": [{"t": 3, "x": 0, "y": 0, "w": 50, "h": 50}]})";
    writeText(dir / "B.cursor.json", bytes);
    LogCapture log;
    auto track = CursorTrack::read(dir / "B.mov");
    ASSERT_TRUE(track) << track.error().sentence;
    EXPECT_EQ(track->videoStartOffsetMS, 0);
    ASSERT_EQ(track->samples.size(), 2u);
    EXPECT_EQ(track->samples[0], (CursorSample{10, 3, 4, 0}));
    EXPECT_EQ(track->samples[1], (CursorSample{20, 1, 2, 1}));
    EXPECT_TRUE(track->clicks.empty());
    EXPECT_TRUE(track->marks.empty());
    EXPECT_EQ(track->frames.size(), 1u);

    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0],
        "Plim: B.cursor.json is not shaped the way Plim writes it: an unusable videoStartOffsetMS read as 0, "
        "2 unusable samples and 1 unusable click dropped, marks is not a list and was read as empty, "
        "its samples put back in time order. The pointer is drawn from what was left; the file itself was not changed.");
    EXPECT_EQ(readText(dir / "B.cursor.json"), bytes);
}

TEST(CursorTrack, CleanFileLogsNothing)
{
    TempDir dir;
    ASSERT_TRUE(sampleTrack().write(dir / "B.mov"));
    LogCapture log;
    ASSERT_TRUE(CursorTrack::read(dir / "B.mov"));
    EXPECT_TRUE(log.lines().empty());
}

TEST(CursorTrack, NormalizedSwitchesToTheFrameKeyAtItsTime)
{
    CursorTrack track;
    track.displayX = 100;
    track.displayY = 50;
    track.displayWidth = 1000;
    track.displayHeight = 500;
    track.frames = {{1000, 200, 100, 400, 200}, {2000, 0, 0, 0, 300}};

    EXPECT_EQ(track.normalized(600, 300, 999), (CursorTrack::UnitPoint{0.5, 0.5}));
    EXPECT_EQ(track.normalized(300, 150, 999), (CursorTrack::UnitPoint{0.2, 0.2}));
    EXPECT_EQ(track.normalized(300, 150, 1000), (CursorTrack::UnitPoint{0.25, 0.25}));
    EXPECT_EQ(track.normalized(300, 150, 1999.5), (CursorTrack::UnitPoint{0.25, 0.25}));
    // Outside the rectangle clamps to its edges.
    EXPECT_EQ(track.normalized(100, 400, 1500), (CursorTrack::UnitPoint{0, 1}));
    // A degenerate frame key gives the centre.
    EXPECT_EQ(track.normalized(300, 150, 2000), (CursorTrack::UnitPoint{0.5, 0.5}));

    CursorTrack empty;
    EXPECT_EQ(empty.normalized(3, 4, 0), (CursorTrack::UnitPoint{0.5, 0.5}));
}

TEST(CursorTrack, NormalizedUsesTheLastFrameKeyAtOrBeforeTheTime)
{
    // Keys sharing a time, and times between, on, before and after them.
    CursorTrack track;
    track.displayWidth = 100;
    track.displayHeight = 100;
    for (int64_t i = 0; i < 40; ++i)
        track.frames.push_back({(i / 3) * 10, static_cast<double>(i), 0, 100, 100});
    for (double at = -5; at <= 140; at += 2.5) {
        double expectedX = 0;
        for (const auto& frame : track.frames)
            if (static_cast<double>(frame.t) <= at)
                expectedX = frame.x;
        EXPECT_EQ(track.normalized(50, 0, at).x, (50 - expectedX) / 100) << at;
    }
    EXPECT_EQ(track.normalized(50, 0, std::nan("")).x, (50 - 39.0) / 100);
}
