#include "base/log.h"
#include "capture/keystroke_track.h"
#include "testkit/testkit.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;

namespace plim {
void PrintTo(const KeyEvent& event, std::ostream* out) { *out << "{" << event.t << ", \"" << event.caption << "\"}"; }
}

namespace {
const std::string repairTail = ". The keycap row draws what was left; the file itself was not changed.";
}

TEST(KeystrokeTrack, WritesCompactReadsBackEqualAndLeavesUndecodableFilesAlone)
{
    TempDir dir;
    EXPECT_EQ(KeystrokeTrack::read(dir / "B.mov").error().kind, Error::Kind::missing);
    KeystrokeTrack track{{{0, "⌘S"}, {1250, "⇧⇥"}, {1250, "⌃⌥⌘K"}, {4000, "⏎"}}};
    ASSERT_TRUE(track.write(dir / "B.mov"));
    std::string text = readText(dir / "B.keys.json");
    EXPECT_TRUE(text.starts_with(R"({"events":[{"caption":"⌘S","t":0},)")) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos);
    LogCapture log;
    auto back = KeystrokeTrack::read(dir / "B.mov");
    ASSERT_TRUE(back);
    EXPECT_EQ(back->value, track);
    EXPECT_TRUE(back->notices.empty());
    for (std::string bytes : {"{\"events\": [}", "{}", "{\"events\": {}}", R"({"events": [{"t": 5}]})",
             R"({"events": [{"t": "5", "caption": "⌘S"}]})", R"({"events": [{"t": 1.5, "caption": "⌘S"}]})", "[]"}) {
        writeText(dir / "B.keys.json", bytes);
        auto refused = KeystrokeTrack::read(dir / "B.mov");
        ASSERT_FALSE(refused) << bytes;
        EXPECT_EQ(refused.error().kind, Error::Kind::unreadable);
        EXPECT_TRUE(refused.error().sentence.starts_with("B.keys.json is not a keystroke track Plim can read ("))
            << refused.error().sentence;
        EXPECT_EQ(readText(dir / "B.keys.json"), bytes);
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(KeystrokeTrack, RepairsInMemoryWithTheNoticeWordForWord)
{
    const std::vector<std::tuple<std::string, std::vector<KeyEvent>, std::string>> rows = {
        {R"({"events": [{"t": 10, "caption": "⌃⌥⇧⌘K→X"}, {"t": -5, "caption": "⌘A"},
            {"t": 20, "caption": "123456789"}, {"t": 30, "caption": "⌘Z"}]})",
            {{10, "⌃⌥⇧⌘K"}, {20, "12345"}, {30, "⌘Z"}},
            "1 unusable event dropped, 2 captions longer than any real shortcut shortened to 5 characters"},
        // Out of order: sorted stably, with its own notice.
        {R"({"events": [{"t": 30, "caption": "⌘C"}, {"t": 10, "caption": "⌘A"}, {"t": 30, "caption": "⌘V"}]})",
            {{10, "⌘A"}, {30, "⌘C"}, {30, "⌘V"}}, "its events put back in time order"},
    };
    TempDir dir;
    for (const auto& [bytes, events, notice] : rows) {
        writeText(dir / "B.keys.json", bytes);
        LogCapture log;
        auto track = KeystrokeTrack::read(dir / "B.mov");
        ASSERT_TRUE(track);
        EXPECT_EQ(track->value.events, events);
        EXPECT_TRUE(log.lines().empty());
        EXPECT_EQ(track->notices, std::vector<std::string>{
            "B.keys.json is not shaped the way Plim writes it: " + notice + repairTail});
        EXPECT_EQ(readText(dir / "B.keys.json"), bytes);
    }
}

TEST(KeystrokeTrack, SanitizingTrimsBlanksAndCountsCharactersNotBytes)
{
    auto clean = KeystrokeTrack::sanitized({{0, " ⌘S "}, {1, " \n\t\u00a0"}, {2, "⌃⌥⇧⌘←"}, {3, "⌃⌥⇧⌘é\u0301x"},
        {4, "\u2003⌘/\u3000"}, {5, "⌘👨‍👩‍👧🇩🇪🇫🇷xy"}});
    // A family joined by zero-width joiners and a flag's two letters are one character each.
    EXPECT_EQ(clean.events, (std::vector<KeyEvent>{{0, "⌘S"}, {2, "⌃⌥⇧⌘←"}, {3, "⌃⌥⇧⌘é\u0301"}, {4, "⌘/"},
                                {5, "⌘👨‍👩‍👧🇩🇪🇫🇷x"}}));
    EXPECT_EQ(clean.dropped, 1);
    EXPECT_EQ(clean.shortened, 4);
    // Equal times keep their order, in a list long enough to defeat an unstable sort.
    std::vector<KeyEvent> many, expected;
    for (int i = 0; i < 100; ++i)
        many.push_back({(i * 7) % 3, "⌘" + std::to_string(i)});
    for (int64_t t = 0; t < 3; ++t)
        std::ranges::copy_if(many, std::back_inserter(expected), [&](const KeyEvent& e) { return e.t == t; });
    EXPECT_EQ(KeystrokeTrack::sanitized(many).events, expected);
    EXPECT_EQ(KeystrokeTrack::repairNotice("x.keys.json", 2, 1),
        "x.keys.json is not shaped the way Plim writes it: 2 unusable events dropped, 1 caption longer than any real "
        "shortcut shortened to 5 characters" + repairTail);
}

TEST(KeystrokeTrack, CaptionsLingerFromTheirTime)
{
    KeystrokeTrack track{{{999, "⌘A"}, {1000, "⌘B"}, {2000, "⌘C"}, {2001, "⌘D"}, {3000, "⌘E"}}};
    for (const auto& [at, shown] : std::vector<std::pair<double, std::vector<KeyEvent>>>{
             {2.0, {{1000, "⌘B"}, {2000, "⌘C"}}}, {0.5, {}}, {3.0, {{2000, "⌘C"}, {2001, "⌘D"}, {3000, "⌘E"}}},
             {3.5, {{3000, "⌘E"}}}})
        EXPECT_EQ(track.captions(at, 1.0), shown) << at;
    EXPECT_TRUE(KeystrokeTrack{}.captions(2.0, 1.0).empty());
}
