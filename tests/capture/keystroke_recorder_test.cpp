#include "base/clock.h"
#include "capture/keystroke_recorder.h"
#include "testing/scripted_sources.h"

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

std::optional<std::string> caption(uint32_t keysym, KeyModifiers modifiers)
{
    return KeystrokeRecorder::caption(KeyPress{keysym, modifiers});
}

} // namespace

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
