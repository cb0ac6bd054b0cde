#include "base/clock.h"
#include "capture/keystroke_recorder.h"

#include <gtest/gtest.h>
#include <xkbcommon/xkbcommon-keysyms.h>

using namespace plim;

namespace plim {
void PrintTo(const KeyEvent& event, std::ostream* out) { *out << "{" << event.t << ", \"" << event.caption << "\"}"; }
}

namespace {

constexpr KeyModifiers none{};
constexpr KeyModifiers shift{.shift = true};
constexpr KeyModifiers command{.command = true};
constexpr KeyModifiers shiftCommand{.shift = true, .command = true};
constexpr KeyModifiers option{.option = true};
constexpr KeyModifiers control{.control = true};
constexpr KeyModifiers all{true, true, true, true};

std::optional<std::string> caption(uint32_t keysym, KeyModifiers modifiers)
{
    return KeystrokeRecorder::caption(KeyPress{keysym, modifiers});
}

} // namespace

TEST(KeyCaption, PlainAndShiftedTypingIsNeverKept)
{
    for (uint32_t key : {XKB_KEY_h, XKB_KEY_e, XKB_KEY_l, XKB_KEY_o, XKB_KEY_H, XKB_KEY_1, XKB_KEY_slash, XKB_KEY_space}) {
        EXPECT_EQ(caption(key, none), std::nullopt) << key;
        EXPECT_EQ(caption(key, shift), std::nullopt) << key;
    }
}

TEST(KeyCaption, ShortcutsShowModifiersInOrderAndTheUpperCasedKey)
{
    EXPECT_EQ(caption(XKB_KEY_s, command), "⌘S");
    EXPECT_EQ(caption(XKB_KEY_z, shiftCommand), "⇧⌘Z");
    EXPECT_EQ(caption(XKB_KEY_Z, shiftCommand), "⇧⌘Z");
    EXPECT_EQ(caption(XKB_KEY_e, option), "⌥E");
    EXPECT_EQ(caption(XKB_KEY_k, KeyModifiers{true, true, false, true}), "⌃⌥⌘K");
    EXPECT_EQ(caption(XKB_KEY_k, all), "⌃⌥⇧⌘K");
    EXPECT_EQ(caption(XKB_KEY_1, control), "⌃1");
    EXPECT_EQ(caption(XKB_KEY_KP_7, command), "⌘7");
    EXPECT_EQ(caption(XKB_KEY_adiaeresis, command), "⌘Ä");
    EXPECT_EQ(caption(0x1000000 + 0x0436, command), "⌘Ж"); // a Unicode keysym (Cyrillic zhe)
}

TEST(KeyCaption, OnlyElevenPunctuationKeysAreKept)
{
    const std::pair<uint32_t, const char*> kept[] = {{XKB_KEY_grave, "⌘`"}, {XKB_KEY_minus, "⌘-"},
        {XKB_KEY_equal, "⌘="}, {XKB_KEY_bracketleft, "⌘["}, {XKB_KEY_bracketright, "⌘]"},
        {XKB_KEY_backslash, "⌘\\"}, {XKB_KEY_semicolon, "⌘;"}, {XKB_KEY_apostrophe, "⌘'"},
        {XKB_KEY_comma, "⌘,"}, {XKB_KEY_period, "⌘."}, {XKB_KEY_slash, "⌘/"}};
    for (auto [key, text] : kept)
        EXPECT_EQ(caption(key, command), text) << key;
    for (uint32_t key : {XKB_KEY_space, XKB_KEY_question, XKB_KEY_exclam, XKB_KEY_plus, XKB_KEY_F1, XKB_KEY_Shift_L,
             XKB_KEY_Super_L, XKB_KEY_Caps_Lock, XKB_KEY_Insert, XKB_KEY_dead_acute, XKB_KEY_NoSymbol})
        EXPECT_EQ(caption(key, command), std::nullopt) << key;
}

TEST(KeyCaption, SpecialKeysAreKeptWithOrWithoutModifiers)
{
    EXPECT_EQ(caption(XKB_KEY_Return, none), "⏎");
    EXPECT_EQ(caption(XKB_KEY_KP_Enter, none), "⏎");
    EXPECT_EQ(caption(XKB_KEY_ISO_Left_Tab, shift), "⇧⇥");
    EXPECT_EQ(caption(XKB_KEY_Tab, none), "⇥");
    EXPECT_EQ(caption(XKB_KEY_BackSpace, option), "⌥⌫");
    EXPECT_EQ(caption(XKB_KEY_Escape, control), "⌃⎋");
    EXPECT_EQ(caption(XKB_KEY_Home, none), "↖");
    EXPECT_EQ(caption(XKB_KEY_Page_Up, none), "⇞");
    EXPECT_EQ(caption(XKB_KEY_Delete, none), "⌦");
    EXPECT_EQ(caption(XKB_KEY_End, none), "↘");
    EXPECT_EQ(caption(XKB_KEY_Page_Down, none), "⇟");
    EXPECT_EQ(caption(XKB_KEY_Left, shiftCommand), "⇧⌘←");
    EXPECT_EQ(caption(XKB_KEY_Right, none), "→");
    EXPECT_EQ(caption(XKB_KEY_Down, none), "↓");
    EXPECT_EQ(caption(XKB_KEY_KP_Up, none), "↑");
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

TEST(KeystrokeRecorder, WithoutPermissionTheTrackStaysEmpty)
{
    ManualClock clock;
    ScriptedKeySource keys;
    keys.setRefusing(true);
    KeystrokeRecorder recorder(keys, clock);
    recorder.start();
    EXPECT_FALSE(recorder.isMonitoring());
    keys.press({XKB_KEY_s, command});
    EXPECT_TRUE(recorder.stop().events.empty());
}

TEST(KeystrokeRecorder, DroppedRecorderRemovesItsHandler)
{
    ScriptedKeySource keys;
    {
        KeystrokeRecorder recorder(keys);
        recorder.start();
        EXPECT_EQ(keys.installedCount(), 1);
    }
    EXPECT_EQ(keys.installedCount(), 0);
    keys.press({XKB_KEY_s, command});
}
