#include "base/log.h"
#include "capture/keystroke_track.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;

namespace plim {
void PrintTo(const KeyEvent& event, std::ostream* out) { *out << "{" << event.t << ", \"" << event.caption << "\"}"; }
}

TEST(KeystrokeTrack, WritesCompactAndReadsBackEqual)
{
    TempDir dir;
    KeystrokeTrack track{{{0, "⌘S"}, {1250, "⇧⇥"}, {1250, "⌃⌥⌘K"}, {4000, "⏎"}}};
    ASSERT_TRUE(track.write(dir / "B.mov"));
    std::string text = readText(dir / "B.keys.json");
    EXPECT_TRUE(text.starts_with(R"({"events":[{"caption":"⌘S","t":0},)")) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos);

    LogCapture log;
    auto back = KeystrokeTrack::read(dir / "B.mov");
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, track);
    EXPECT_TRUE(log.lines().empty());
}

TEST(KeystrokeTrack, UnreadableOrUndecodableGivesNothingAndLeavesTheFile)
{
    TempDir dir;
    EXPECT_FALSE(KeystrokeTrack::read(dir / "B.mov"));
    LogCapture log;
    for (std::string bytes : {std::string("{\"events\": [}"), std::string("{}"), std::string("{\"events\": {}}"),
             std::string(R"({"events": [{"t": 5}]})"), std::string(R"({"events": [{"t": "5", "caption": "⌘S"}]})"),
             std::string(R"({"events": [{"t": 1.5, "caption": "⌘S"}]})"), std::string("[]")}) {
        writeText(dir / "B.keys.json", bytes);
        EXPECT_FALSE(KeystrokeTrack::read(dir / "B.mov")) << bytes;
        EXPECT_EQ(readText(dir / "B.keys.json"), bytes);
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(KeystrokeTrack, RepairsInMemoryWithTheNoticeWordForWord)
{
    TempDir dir;
    std::string bytes = R"({"events": [{"t": 10, "caption": "⌃⌥⇧⌘K→X"}, {"t": -5, "caption": "⌘A"},
        {"t": 20, "caption": "123456789"}, {"t": 30, "caption": "⌘Z"}]})";
    writeText(dir / "B.keys.json", bytes);
    LogCapture log;
    auto track = KeystrokeTrack::read(dir / "B.mov");
    ASSERT_TRUE(track);
    EXPECT_EQ(track->events, (std::vector<KeyEvent>{{10, "⌃⌥⇧⌘K"}, {20, "12345"}, {30, "⌘Z"}}));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0],
        "Plim: B.keys.json is not shaped the way Plim writes it: 1 unusable event dropped, 2 captions longer than any "
        "real shortcut shortened to 5 characters. The keycap row draws what was left; the file itself was not changed.");
    EXPECT_EQ(readText(dir / "B.keys.json"), bytes);
}

TEST(KeystrokeTrack, OutOfOrderIsSortedStablyWithItsOwnNotice)
{
    TempDir dir;
    writeText(dir / "B.keys.json", R"({"events": [{"t": 30, "caption": "⌘C"}, {"t": 10, "caption": "⌘A"}, {"t": 30, "caption": "⌘V"}]})");
    LogCapture log;
    auto track = KeystrokeTrack::read(dir / "B.mov");
    ASSERT_TRUE(track);
    EXPECT_EQ(track->events, (std::vector<KeyEvent>{{10, "⌘A"}, {30, "⌘C"}, {30, "⌘V"}}));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0],
        "Plim: B.keys.json is not shaped the way Plim writes it: its events put back in time order. "
        "The keycap row draws what was left; the file itself was not changed.");
}

TEST(KeystrokeTrack, SanitizingTrimsBlanksAndCountsCharactersNotBytes)
{
    auto clean = KeystrokeTrack::sanitized({{0, " ⌘S "}, {1, " \n\t\u00a0"}, {2, "⌃⌥⇧⌘←"}, {3, "⌃⌥⇧⌘é\u0301x"},
        {4, "\u2003⌘/\u3000"}});
    EXPECT_EQ(clean.events, (std::vector<KeyEvent>{{0, "⌘S"}, {2, "⌃⌥⇧⌘←"}, {3, "⌃⌥⇧⌘é\u0301"}, {4, "⌘/"}}));
    EXPECT_EQ(clean.dropped, 1);
    EXPECT_EQ(clean.shortened, 3);

    EXPECT_EQ(KeystrokeTrack::repairNotice("x.keys.json", 2, 1),
        "x.keys.json is not shaped the way Plim writes it: 2 unusable events dropped, 1 caption longer than any real "
        "shortcut shortened to 5 characters. The keycap row draws what was left; the file itself was not changed.");
}

TEST(KeystrokeTrack, CaptionsLingerFromTheirTime)
{
    KeystrokeTrack track{{{999, "⌘A"}, {1000, "⌘B"}, {2000, "⌘C"}, {2001, "⌘D"}, {3000, "⌘E"}}};
    EXPECT_EQ(track.captions(2.0, 1.0), (std::vector<KeyEvent>{{1000, "⌘B"}, {2000, "⌘C"}}));
    EXPECT_EQ(track.captions(0.5, 1.0), std::vector<KeyEvent>{});
    EXPECT_EQ(track.captions(3.0, 1.0), (std::vector<KeyEvent>{{2000, "⌘C"}, {2001, "⌘D"}, {3000, "⌘E"}}));
    EXPECT_EQ(track.captions(3.5, 1.0), (std::vector<KeyEvent>{{3000, "⌘E"}}));
    EXPECT_TRUE(KeystrokeTrack{}.captions(2.0, 1.0).empty());
}
