#include "base/clock.h"
#include "base/log.h"
#include "capture/keystroke_recorder.h"
#include "capture/keystroke_track.h"
#include "testing/scripted_sources.h"
#include "testkit/testkit.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <xkbcommon/xkbcommon-keysyms.h>

using namespace plim;
using namespace plim::testkit;

namespace plim {
void PrintTo(const KeyEvent& event, std::ostream* out) { *out << "{" << event.t << ", \"" << event.caption << "\"}"; }
}

namespace {

const std::string repairTail = ". The keycap row draws what was left; the file itself was not changed.";

constexpr KeyModifiers none{};
constexpr KeyModifiers shift{.shift = true};
constexpr KeyModifiers command{.command = true};
constexpr KeyModifiers shiftCommand{.shift = true, .command = true};
constexpr KeyModifiers option{.option = true};
constexpr KeyModifiers control{.control = true};

std::optional<std::string> caption(uint32_t keysym, KeyModifiers modifiers)
{
    return KeystrokeRecorder::caption(KeyPress{keysym, modifiers});
}

} // namespace

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
            {"t": 20, "caption": "123456789"}, {"t": 30, "caption": "⌘Z"}, {"t": 86400001, "caption": "⌘B"}]})",
            {{10, "⌃⌥⇧⌘K"}, {20, "12345"}, {30, "⌘Z"}},
            "2 unusable events dropped, 2 captions longer than any real shortcut shortened to 5 characters"},
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

TEST(KeyCaption, ShortcutsAndSpecialKeysAreKeptButNeverPlainTyping)
{
    const std::vector<std::tuple<uint32_t, KeyModifiers, std::string>> rows = {
        // Modifiers in order, then the key upper-cased.
        {XKB_KEY_s, command, "⌘S"}, {XKB_KEY_z, shiftCommand, "⇧⌘Z"}, {XKB_KEY_Z, shiftCommand, "⇧⌘Z"},
        {XKB_KEY_e, option, "⌥E"}, {XKB_KEY_k, {true, true, false, true}, "⌃⌥⌘K"},
        {XKB_KEY_k, {true, true, true, true}, "⌃⌥⇧⌘K"}, {XKB_KEY_1, control, "⌃1"}, {XKB_KEY_KP_7, command, "⌘7"},
        {XKB_KEY_adiaeresis, command, "⌘Ä"}, {0x1000000 + 0x0436, command, "⌘Ж"}, // a Unicode keysym
        // Letters whose upper case is no key symbol take the character's upper case.
        {XKB_KEY_ssharp, command, "⌘ẞ"}, {XKB_KEY_mu, option, "⌥Μ"}, {XKB_KEY_ydiaeresis, control, "⌃Ÿ"},
        {0x1000000 + 0x01C6, command, "⌘Ǆ"}, {0x1000000 + 0x0661, command, "⌘١"}, // dž, an Arabic-Indic digit
        // Special keys, with or without modifiers.
        {XKB_KEY_Return, none, "⏎"}, {XKB_KEY_KP_Enter, none, "⏎"}, {XKB_KEY_ISO_Left_Tab, shift, "⇧⇥"},
        {XKB_KEY_Tab, none, "⇥"}, {XKB_KEY_BackSpace, option, "⌥⌫"}, {XKB_KEY_Escape, control, "⌃⎋"},
        {XKB_KEY_Home, none, "↖"}, {XKB_KEY_Page_Up, none, "⇞"}, {XKB_KEY_Delete, none, "⌦"}, {XKB_KEY_End, none, "↘"},
        {XKB_KEY_Page_Down, none, "⇟"}, {XKB_KEY_Left, shiftCommand, "⇧⌘←"}, {XKB_KEY_Right, none, "→"},
        {XKB_KEY_Down, none, "↓"}, {XKB_KEY_KP_Up, none, "↑"},
    };
    for (const auto& [keysym, modifiers, text] : rows)
        EXPECT_EQ(caption(keysym, modifiers), text) << keysym;

    // Plain and shifted typing is never kept.
    for (uint32_t key : {XKB_KEY_h, XKB_KEY_H, XKB_KEY_1, XKB_KEY_slash, XKB_KEY_space})
        for (KeyModifiers modifiers : {none, shift})
            EXPECT_EQ(caption(key, modifiers), std::nullopt) << key;
    // Of the punctuation keys only these eleven (keysym = ASCII code) are kept.
    for (char key : std::string("`-=[]\\;',./"))
        EXPECT_EQ(caption(static_cast<uint32_t>(key), command), std::string("⌘") + key);
    for (uint32_t key : {XKB_KEY_space, XKB_KEY_question, XKB_KEY_exclam, XKB_KEY_plus, XKB_KEY_F1, XKB_KEY_Shift_L,
             XKB_KEY_Super_L, XKB_KEY_Caps_Lock, XKB_KEY_Insert, XKB_KEY_dead_acute, XKB_KEY_NoSymbol})
        EXPECT_EQ(caption(key, command), std::nullopt) << key;
}

TEST(KeystrokeRecorder, RecordsShortcutsOnItsOwnPausedClock)
{
    ManualClock clock(100);
    ScriptedKeySource keys;
    KeystrokeRecorder recorder(keys, clock);
    recorder.start();
    EXPECT_TRUE(recorder.isMonitoring());

    clock.advance(0.25);
    keys.press({XKB_KEY_h, none});
    keys.press({XKB_KEY_s, command});
    recorder.pause();
    clock.advance(1);
    recorder.pause(); // a second pause changes nothing
    keys.press({XKB_KEY_Return, none});
    clock.advance(1);
    recorder.resume();
    recorder.resume();
    clock.advance(0.0509);
    keys.press({XKB_KEY_z, shiftCommand});

    KeystrokeTrack track = recorder.stop();
    EXPECT_FALSE(recorder.isMonitoring());
    EXPECT_EQ(keys.installedCount(), 0);
    keys.press({XKB_KEY_a, command});
    EXPECT_EQ(track.events, (std::vector<KeyEvent>{{250, "⌘S"}, {300, "⇧⌘Z"}}));
    EXPECT_EQ(recorder.stop(), track);
}

TEST(KeystrokeRecorder, RefusedOrDroppedLeavesNoHandler)
{
    ManualClock clock;
    ScriptedKeySource keys;
    keys.setRefusing(true);
    KeystrokeRecorder refused(keys, clock);
    refused.start();
    EXPECT_FALSE(refused.isMonitoring());
    keys.press({XKB_KEY_s, command});
    EXPECT_TRUE(refused.stop().events.empty());

    keys.setRefusing(false);
    {
        KeystrokeRecorder dropped(keys, clock);
        dropped.start();
        EXPECT_EQ(keys.installedCount(), 1);
    }
    EXPECT_EQ(keys.installedCount(), 0);
    keys.press({XKB_KEY_s, command}); // nobody listens: must not crash
}
