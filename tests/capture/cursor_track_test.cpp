#include "base/json.h"
#include "base/log.h"
#include "capture/cursor_track.h"
#include "capture/track_placement.h"
#include "testkit/testkit.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>

using namespace plim;
using namespace plim::testkit;
using Kind = Error::Kind;

namespace {

const std::string minimalTrack =
    R"({"displayX": 10, "displayY": -20.5, "displayWidth": 1440, "displayHeight": 900, "scale": 2})";
const std::string keptTail = ". The file was left as it is and nothing in it was lost. ";
const std::string recordAgain = "Restore the file from a backup, or record the plim again to get a new pointer track.";

std::string corruptSentence(const std::string& reason)
{
    return "B.cursor.json is not a pointer track Plim can read (" + reason + ")" + keptTail + recordAgain;
}

std::string missingSentence(const std::string& keys)
{
    return "B.cursor.json is missing " + keys
        + ", which Plim needs to place the pointer in the picture, so the pointer track cannot be used" + keptTail
        + recordAgain;
}

CursorTrack sampleTrack()
{
    return {.displayX = -1920, .displayWidth = 1920, .displayHeight = 1080, .scale = 2, .videoStartOffsetMS = 48,
        .samples = {{0, 1.5, -3.2, 0}, {17, 2.3, 4.1, 1}}, .clicks = {{17, 2.3456, -7.891}}, .marks = {{500}},
        .frames = {{1000, 5, 6, 700, 500}}};
}

} // namespace

TEST(CursorTrack, RoundsHalvesAwayFromZero)
{
    for (auto [in, out] : std::vector<std::pair<double, double>>{
             {2.24, 2.2}, {2.25, 2.3}, {-0.25, -0.3}, {-2.24, -2.2}, {0.04, 0}, {1919.95, 1920}})
        EXPECT_EQ(roundToTenth(in), out) << in;
}

TEST(CursorTrack, WritesBesideTheMovieAndReadsBackEqualWithoutNotices)
{
    TempDir dir;
    const CursorTrack track = sampleTrack();
    LogCapture log;
    ASSERT_TRUE(track.write(dir / "B.mov"));
    auto back = CursorTrack::read(dir / "B.mov");
    ASSERT_TRUE(back) << back.error().sentence;
    EXPECT_EQ(back->value, track);
    EXPECT_TRUE(back->notices.empty());
    // Absent optional keys take their defaults, silently.
    writeText(dir / "B.cursor.json", minimalTrack);
    auto minimal = CursorTrack::read(dir / "B.mov");
    ASSERT_TRUE(minimal) << minimal.error().sentence;
    EXPECT_TRUE(minimal->notices.empty());
    EXPECT_EQ(minimal->value, (CursorTrack{.displayX = 10, .displayY = -20.5, .displayWidth = 1440, .displayHeight = 900, .scale = 2}));
    EXPECT_TRUE(log.lines().empty());
    // All four arrays are always written; absent optionals are left out.
    EXPECT_EQ(CursorTrack::deviceTrack(1170, 2532).encoded(),
        "{\n  \"clicks\": [],\n  \"displayHeight\": 2532.0,\n  \"displayWidth\": 1170.0,\n  \"displayX\": 0.0,\n"
        "  \"displayY\": 0.0,\n  \"frames\": [],\n  \"marks\": [],\n  \"samples\": [],\n  \"scale\": 1.0,\n"
        "  \"subjectKind\": \"device\",\n  \"videoStartOffsetMS\": 0\n}\n");
    // Entries are objects with sorted keys, one member a line.
    CursorTrack one{.displayWidth = 8, .displayHeight = 6, .scale = 2, .samples = {{17, 2.5, -1e-5, 1}}};
    EXPECT_NE(one.encoded().find("  \"samples\": [\n    {\n      \"k\": 1,\n      \"t\": 17,\n      \"x\": 2.5,\n"
                                 "      \"y\": -1e-05\n    }\n  ],\n"), std::string::npos) << one.encoded();
}

TEST(CursorTrack, ReadFailuresSayWhatHappenedAndLeaveTheFileAsItIs)
{
    TempDir dir;
    const fs::path movie = dir / "B.mov", file = dir / "B.cursor.json";
    auto absent = CursorTrack::read(movie);
    ASSERT_FALSE(absent);
    EXPECT_EQ(absent.error(), (Error{
        "There is no pointer track beside B.mov (B.cursor.json is missing), so the pointer cannot be drawn. "
        "Nothing was changed. Put the file back beside the movie, or record the plim again.", Kind::missing}));
    EXPECT_FALSE(fs::exists(file));

    std::vector<std::pair<std::string, std::string>> rows = {
        {"{\"displayX\": 1,", corruptSentence("it is not valid JSON")},
        {"\xff\xfe{}", corruptSentence("it is not valid JSON")},
        {"[1, 2, 3]", corruptSentence("it does not hold a JSON object")},
        {"", corruptSentence("the file is empty")},
        // A geometry key of the wrong type counts as missing; all missing ones are named.
        {R"({"displayX": "0", "displayY": 0, "displayWidth": 1, "displayHeight": 1})",
            missingSentence("displayX and scale")},
        {R"({"displayWidth": 1, "displayHeight": 1, "scale": null})", missingSentence("displayX, displayY and scale")},
    };
    for (const char* key : {"displayX", "displayY", "displayWidth", "displayHeight", "scale"}) {
        Json json = *parseJson(sampleTrack().encoded());
        json.erase(key);
        rows.push_back({json.dump(4) + "\n  ", missingSentence(key)});
    }
    for (const auto& [bytes, sentence] : rows) {
        SCOPED_TRACE(bytes);
        writeText(file, bytes);
        auto track = CursorTrack::read(movie);
        ASSERT_FALSE(track);
        EXPECT_EQ(track.error(), (Error{sentence, Kind::unreadable}));
        EXPECT_EQ(readText(file), bytes);
    }

    // A file that cannot be read (here a folder in its place) is left where it is.
    fs::remove(file);
    fs::create_directory(file);
    auto unreadable = CursorTrack::read(movie);
    ASSERT_FALSE(unreadable);
    EXPECT_EQ(unreadable.error(), (Error{"Plim could not read B.cursor.json (it is a folder, not a file)" + keptTail
        + "Check that you may read the file, then try again.", Kind::unreadable}));
    EXPECT_TRUE(fs::is_directory(file));
}

TEST(CursorTrack, UnusableEntriesAreDroppedAndDisorderRepairedWithANotice)
{
    TempDir dir;
    std::string bytes = R"({"displayX": 0, "displayY": 0, "displayWidth": 100, "displayHeight": 100, "scale": 1e9,
        "videoStartOffsetMS": "soon",
        "samples": [{"t": 20, "x": 1, "y": 2, "k": 1}, {"t": 10, "x": 3, "y": 4}, {"x": 5, "y": 6}, {"t": 1.5, "x": 0, "y": 0},
            {"t": 30, "x": 1e300, "y": 0},
            {"t": 86400001, "x": 0, "y": 0}, {"t": -86400001, "x": 0, "y": 0}, {"t": 86400000, "x": 7, "y": 8}],
        "clicks": [{"t": 5, "x": 1}],
        "marks": "none",
        "frames": [{"t": 3, "x": 0, "y": 0, "w": 50, "h": 50}]})";
    writeText(dir / "B.cursor.json", bytes);
    LogCapture log;
    auto track = CursorTrack::read(dir / "B.mov");
    ASSERT_TRUE(track) << track.error().sentence;
    EXPECT_EQ(track->value, (CursorTrack{.displayWidth = 100, .displayHeight = 100, .scale = track_limits::largestScale,
        .samples = {{10, 3, 4, 0}, {20, 1, 2, 1}, {86400000, 7, 8, 0}}, .frames = {{3, 0, 0, 50, 50}}}));
    EXPECT_TRUE(log.lines().empty()); // the caller decides whether to log or show it
    EXPECT_EQ(track->notices, std::vector<std::string>{
        "B.cursor.json is not shaped the way Plim writes it: scale 1e+09 read as 8.00, an unusable videoStartOffsetMS "
        "read as 0, 5 unusable samples and 1 unusable click dropped, marks is not a list and was read as empty, "
        "its samples put back in time order. The pointer is drawn from what was left; the file itself was not changed."});
    EXPECT_EQ(readText(dir / "B.cursor.json"), bytes);
}

TEST(TrackPlacement, PointsLandInTheRegionOfTheLastFrameKeyAtOrBeforeTheirStamp)
{
    CursorTrack track{.displayX = 100, .displayY = 50, .displayWidth = 1000, .displayHeight = 500,
        .frames = {{2000, 0, 0, 0, 300}, {1000, 200, 100, 400, 200}, {3000, 0, 0, 300, NAN}, {4000, 0, 0, 100, 100}}};
    const TrackPlacement place(track); // keys out of order are put in order
    const double nan = std::nan(""), inf = std::numeric_limits<double>::infinity();
    for (auto [x, y, ms, expected] : std::vector<std::tuple<double, double, int64_t, Point>>{
             {600, 300, 999, {0.5, 0.5}}, {300, 150, 999, {0.2, 0.2}}, // the display before the first key
             {300, 150, 1000, {0.25, 0.25}}, {300, 150, 1999, {0.25, 0.25}}, // the key from its stamp on
             {100, 400, 1500, {0, 1}}, // outside clamps to the edges
             {300, 150, 2000, {0.5, 0.5}}, {300, 150, 3000, {0.5, 0.5}}, // empty or non-finite: the middle
             {nan, 25, 4000, {0.5, 0.25}}, {inf, -inf, 4000, {0.5, 0.5}}, // one rule per axis
             {nan, nan, -5, {0.5, 0.5}}}) {
        EXPECT_EQ(place.unitPoint(x, y, ms), expected) << x << ", " << y << " at " << ms;
    }
    EXPECT_EQ(place.regionAt(1500), (Rect{200, 100, 400, 200}));
    EXPECT_EQ(TrackPlacement(CursorTrack{}).unitPoint(3, 4, 0), (Point{0.5, 0.5}));

    // Keys sharing a stamp: the last one in the file counts.
    CursorTrack shared{.displayWidth = 100, .displayHeight = 100};
    for (int64_t i = 0; i < 40; ++i)
        shared.frames.push_back({(i / 3) * 10, static_cast<double>(i), 0, 100, 100});
    const TrackPlacement keyed(shared);
    for (int64_t at = -5; at <= 140; at += 5) {
        double expectedX = 0;
        for (const auto& frame : shared.frames)
            if (frame.t <= at)
                expectedX = frame.x;
        EXPECT_EQ(keyed.unitPoint(50, 0, at).x, (50 - expectedX) / 100) << at;
    }
}

TEST(TrackPlacement, MovieTimeIsTrackTimeLessTheOffset)
{
    constexpr int64_t most = std::numeric_limits<int64_t>::max(), least = std::numeric_limits<int64_t>::min();
    for (auto [offset, trackMS, movieMS] :
        std::vector<std::tuple<int64_t, int64_t, int64_t>>{{0, 1500, 1500}, {1000, 1500, 500}, {1000, 400, -600},
            {-250, 0, 250}, {1, least, least}, {-1, most, most}}) { // saturated, never wrapped
        const TrackPlacement place(CursorTrack{.videoStartOffsetMS = offset});
        EXPECT_EQ(place.movieMS(trackMS), movieMS) << offset << " " << trackMS;
        EXPECT_EQ(place.movieSeconds(trackMS), static_cast<double>(movieMS) / 1000);
    }
}
