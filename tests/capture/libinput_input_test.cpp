// Clicks, keys and the pointer from the kernel's input devices: recorded event sequences
// through the tracker (no device needed), the sentence when the devices cannot be read,
// and a uinput device through libinput where the machine has /dev/uinput.

#include "capture/keystroke_recorder.h"
#include "capture/linux_input/input_events.h"
#include "capture/linux_input/input_libinput.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/input-event-codes.h>
#include <linux/uinput.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>
#include <initializer_list>
#include <mutex>
#include <vector>

namespace plim {
namespace {

using namespace testkit;
using Kind = InputEvent::Kind;

InputEvent key(uint32_t code, bool down, uint32_t device = 1) { return {Kind::key, device, 999.5, code, down}; }
InputEvent button(uint32_t code, bool down, uint32_t device = 2, double at = 999.5)
{
    return {Kind::button, device, at, code, down};
}
InputEvent motion(double dx, double dy) { return {Kind::motion, 2, 999.5, 0, false, dx, dy}; }

void replay(InputTracker& tracker, std::initializer_list<InputEvent> events)
{
    for (const auto& event : events)
        tracker.handle(event);
}

// Taps a key: down and up.
void tap(InputTracker& tracker, uint32_t code, uint32_t device = 1)
{
    replay(tracker, {key(code, true, device), key(code, false, device)});
}

// The captions the keystroke recorder keeps from the tracker's key presses.
struct Keycaps {
    ManualClock clock;
    std::unique_ptr<InputTracker> tracker;
    std::unique_ptr<HandlersSource<KeySource, KeyPress>> keys;
    std::unique_ptr<KeystrokeRecorder> recorder;
    explicit Keycaps(const char* layout)
    {
        ScopedEnv xkb("XKB_DEFAULT_LAYOUT", layout);
        auto made = InputTracker::create({{0, 0, 1920, 1080}}, {}, clock);
        EXPECT_TRUE(made) << made.error().sentence;
        tracker = std::move(*made);
        keys = std::make_unique<HandlersSource<KeySource, KeyPress>>(tracker->keyHandlers());
        recorder = std::make_unique<KeystrokeRecorder>(*keys, clock);
        recorder->start();
    }
    std::vector<std::string> captions()
    {
        std::vector<std::string> out;
        for (const auto& event : recorder->stop().events)
            out.push_back(event.caption);
        return out;
    }
};

TEST(LibinputSequences, ShortcutsAreKeptTypingIsNotAndHeldKeysRepeatNothing)
{
    Keycaps us("us");
    // Plain and shifted typing: nothing.
    for (uint32_t code : {KEY_H, KEY_I, KEY_1, KEY_SPACE, KEY_DOT})
        tap(*us.tracker, code);
    replay(*us.tracker, {key(KEY_LEFTSHIFT, true), key(KEY_H, true), key(KEY_H, false), key(KEY_LEFTSHIFT, false)});
    // Shortcuts and special keys, the kernel's repeats of a held key and the same key held
    // on a second keyboard counting once.
    replay(*us.tracker, {key(KEY_LEFTCTRL, true), key(KEY_S, true), key(KEY_S, true), key(KEY_S, true, 3),
                            key(KEY_S, false), key(KEY_S, false, 3), key(KEY_LEFTCTRL, false)});
    replay(*us.tracker, {key(KEY_LEFTCTRL, true), key(KEY_LEFTSHIFT, true), key(KEY_Z, true), key(KEY_Z, false),
                            key(KEY_LEFTSHIFT, false), key(KEY_LEFTCTRL, false)});
    replay(*us.tracker, {key(KEY_LEFTALT, true), key(KEY_TAB, true), key(KEY_TAB, false), key(KEY_LEFTALT, false)});
    replay(*us.tracker, {key(KEY_LEFTMETA, true), key(KEY_LEFT, true), key(KEY_LEFT, false), key(KEY_LEFTMETA, false)});
    tap(*us.tracker, KEY_ENTER);
    EXPECT_EQ(us.captions(), (std::vector<std::string>{"⌃S", "⌃⇧Z", "⌥⇥", "⌘←", "⏎"}));

    // Keys are named by the layout: the key labelled Y on a US keyboard is Z in German.
    Keycaps de("de");
    replay(*de.tracker, {key(KEY_RIGHTCTRL, true), key(KEY_Y, true), key(KEY_Y, false), key(KEY_RIGHTCTRL, false)});
    tap(*de.tracker, KEY_Y);
    EXPECT_EQ(de.captions(), (std::vector<std::string>{"⌃Z"}));

    // Every fresh key-down counts as activity, at the kernel's stamp; a repeat does not.
    us.clock.set(1000.0);
    replay(*us.tracker, {InputEvent{Kind::key, 1, 999.75, KEY_A, true}});
    EXPECT_DOUBLE_EQ(us.tracker->secondsSinceLastKeyDown(), 0.25);
    replay(*us.tracker, {InputEvent{Kind::key, 1, 999.9, KEY_A, true}});
    EXPECT_DOUBLE_EQ(us.tracker->secondsSinceLastKeyDown(), 0.25);
}

TEST(LibinputSequences, ModifiersLetGoInAnyOrderOrWithTheirKeyboard)
{
    Keycaps us("us");
    // Control let go before Shift and before the key it modified.
    replay(*us.tracker, {key(KEY_LEFTCTRL, true), key(KEY_LEFTSHIFT, true), key(KEY_LEFTCTRL, false)});
    tap(*us.tracker, KEY_TAB);
    replay(*us.tracker, {key(KEY_LEFTSHIFT, false), key(KEY_LEFTCTRL, true), key(KEY_C, true),
                            key(KEY_LEFTCTRL, false), key(KEY_C, false)});
    tap(*us.tracker, KEY_P);
    // A keyboard unplugged with Control down: what the next keyboard types stays typing. Control
    // held on two keyboards stays held while one of them lets go.
    replay(*us.tracker, {{Kind::added, 4}, key(KEY_LEFTCTRL, true, 4), {Kind::removed, 4}});
    tap(*us.tracker, KEY_P);
    replay(*us.tracker, {key(KEY_LEFTCTRL, true), key(KEY_LEFTCTRL, true, 5), key(KEY_LEFTCTRL, false)});
    tap(*us.tracker, KEY_V, 5);
    replay(*us.tracker, {key(KEY_LEFTCTRL, false, 5)});
    tap(*us.tracker, KEY_V, 5);
    EXPECT_EQ(us.captions(), (std::vector<std::string>{"⇧⇥", "⌃C", "⌃V"}));
}

TEST(LibinputSequences, ClicksLandWhereTheMotionTookThePointer)
{
    // A 1920x1080 display with a 1280x720 one to its right, tops aligned.
    auto made = InputTracker::create({{0, 0, 1920, 1080}, {1920, 0, 1280, 720}});
    ASSERT_TRUE(made) << made.error().sentence;
    InputTracker& tracker = **made;
    std::vector<ClickSource::Press> presses;
    tracker.clickHandlers().install([&](const ClickSource::Press& p) { presses.push_back(p); });

    // Where the pointer starts is unknown: no position and no click until motion has pinned
    // it into a corner (one axis pinned is not enough).
    EXPECT_FALSE(tracker.position());
    replay(tracker, {button(BTN_LEFT, true), button(BTN_LEFT, false), motion(-5000, 0)});
    EXPECT_FALSE(tracker.position());
    EXPECT_TRUE(presses.empty());
    replay(tracker, {motion(0, -5000)});
    EXPECT_EQ(tracker.position(), (Point{0, 0}));

    // Motion is clamped to the displays the way the compositor clamps its pointer: across
    // to the second one, down to its last row (not into the empty space below it), off its
    // right edge; a click there carries the kernel's stamp.
    replay(tracker, {motion(2500.5, 100), motion(0, 900)});
    EXPECT_EQ(tracker.position(), (Point{2500.5, 719}));
    replay(tracker, {motion(5000, 0), button(BTN_RIGHT, true, 2, 1234.125), button(BTN_RIGHT, false)});
    EXPECT_EQ(tracker.position(), (Point{3199, 719}));
    // The wheel's button and a held button pressed again on another mouse are no clicks.
    replay(tracker, {button(BTN_MIDDLE, true), button(BTN_LEFT, true), button(BTN_LEFT, true, 6),
                        button(BTN_LEFT, false, 6)});
    // A mouse unplugged with its button down lets it go.
    replay(tracker, {{Kind::removed, 2}, button(BTN_LEFT, true, 6, 1300)});
    ASSERT_EQ(presses.size(), 3u);
    EXPECT_EQ(presses[0], (ClickSource::Press{ClickSource::Button::right, 3199, 719, 1234.125}));
    EXPECT_EQ(presses[1].button, ClickSource::Button::left);
    EXPECT_EQ(presses[2], (ClickSource::Press{ClickSource::Button::left, 3199, 719, 1300}));

    // An absolute device (a tablet, a virtual machine's pointer) spans all displays.
    replay(tracker, {{Kind::absolute, 7, 1301, 0, false, 0.5, 0.25}});
    EXPECT_EQ(tracker.position(), (Point{1600, 270}));
    tracker.placePointer({-40, 2000});
    EXPECT_EQ(tracker.position(), (Point{0, 1079}));

    // A desktop that follows the pointer itself (a stream's cursor metadata) places the clicks.
    struct Metadata final : PointerSource {
        std::optional<Point> position() override { return Point{812.5, 33}; }
    } metadata;
    tracker.placeClicksBy(&metadata);
    replay(tracker, {button(BTN_LEFT, false, 6), button(BTN_LEFT, true, 6, 1302)});
    ASSERT_EQ(presses.size(), 4u);
    EXPECT_EQ(presses[3], (ClickSource::Press{ClickSource::Button::left, 812.5, 33, 1302}));
}

// The wlr desktop finds where its pointer starts by comparing pictures drawn with and without it.
TEST(LibinputSequences, ThePointerIsWhereOnlyTheDrawnPictureDiffers)
{
    // A picture with a clock in its corner; `changed` flips bits of every pixel.
    auto screen = [](uint32_t clock, uint32_t changed = 0) {
        Image image = Image::allocate(320, 200);
        for (int y = 0; y < 200; ++y)
            for (int x = 0; x < 320; ++x)
                reinterpret_cast<uint32_t*>(image.row(y))[x]
                    = (0xff000000u | uint32_t(x * 7 + y * 13) | (x < 40 && y < 10 ? clock : 0)) ^ changed;
        return image;
    };
    auto withPointer = [](Image image, int x0, int y0) {
        for (int y = 0; y < 19; ++y)
            for (int x = 0; x <= y / 2; ++x)
                reinterpret_cast<uint32_t*>(image.row(y0 + y))[x0 + x] = 0xffffffffu;
        return image;
    };
    // A clock ticking between the pictures does not count; a tip on the top-left pixel does.
    EXPECT_EQ(pointerInPictures(withPointer(screen(1u << 20), 101, 57), screen(0), screen(1u << 20)), (Point{101, 57}));
    EXPECT_EQ(pointerInPictures(withPointer(screen(0), 0, 0), screen(0), screen(1u << 21)), (Point{0, 0}));
    EXPECT_FALSE(pointerInPictures(screen(0), screen(0), screen(0))) << "no pointer shows";
    // Everything changing at once (a video playing) is no pointer.
    EXPECT_FALSE(pointerInPictures(screen(0, 0x00ff00u), screen(0), screen(1u << 20)));
    EXPECT_FALSE(pointerInPictures(screen(0), Image::allocate(10, 10), screen(0)));
}

TEST(LibinputDevices, UnreadableDevicesGiveTheSentenceWithItsFix)
{
    if (rerunUnprivileged())
        return;
    TempDir devices;
    writeText(devices / "event0", "");
    fs::permissions(devices / "event0", fs::perms::none);
    auto opened = openLibinputInputs({{{0, 0, 1280, 720}}, {}, std::nullopt, nullptr, devices.path()});
    ASSERT_FALSE(opened);
    const std::string& sentence = opened.error().sentence;
    EXPECT_EQ(opened.error().kind, Error::Kind::refused);
    for (const char* part : {devices.path().c_str(), "rolls on without clicks and keys", "input group", "log in again"})
        EXPECT_NE(sentence.find(part), std::string::npos) << sentence;
    EXPECT_NE(inputDevicesRefusal(devices / "missing")->find("has none"), std::string::npos);
}

// A keyboard and mouse made through uinput reach the handlers through libinput and udev.
TEST(LibinputDevices, AUinputDeviceClicksAndTypesAShortcut)
{
    int fd = ::open("/dev/uinput", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        GTEST_SKIP() << "/dev/uinput cannot be opened here (" << std::strerror(errno)
                     << "), so no device can be made; the sequences above cover the logic";
    ioctl(fd, UI_SET_EVBIT, EV_KEY);
    ioctl(fd, UI_SET_EVBIT, EV_REL);
    for (int code : {KEY_LEFTCTRL, KEY_S, BTN_LEFT})
        ioctl(fd, UI_SET_KEYBIT, code);
    ioctl(fd, UI_SET_RELBIT, REL_X);
    ioctl(fd, UI_SET_RELBIT, REL_Y);
    uinput_setup setup{};
    setup.id.bustype = BUS_USB;
    std::strcpy(setup.name, "plim test keyboard and mouse");
    ASSERT_EQ(ioctl(fd, UI_DEV_SETUP, &setup), 0);
    ASSERT_EQ(ioctl(fd, UI_DEV_CREATE), 0);
    auto emit = [&](int type, int code, int value) {
        input_event event{};
        event.type = uint16_t(type);
        event.code = uint16_t(code);
        event.value = value;
        EXPECT_EQ(::write(fd, &event, sizeof event), ssize_t(sizeof event));
    };

    auto inputs = openLibinputInputs({{{0, 0, 1280, 720}}, {}, Point{640, 360}});
    ASSERT_TRUE(inputs) << inputs.error().sentence;
    std::mutex lock;
    std::vector<KeyPress> keys;
    std::vector<ClickSource::Press> clicks;
    auto keyToken = inputs->keys->install([&](const KeyPress& k) { std::lock_guard g(lock); keys.push_back(k); });
    auto clickToken = inputs->clicks->install([&](const ClickSource::Press& p) { std::lock_guard g(lock); clicks.push_back(p); });
    ASSERT_TRUE(keyToken && clickToken);
    // Sent until they arrive: udev announces a new device a moment after it is made.
    EXPECT_TRUE(eventually([&] {
        for (auto [code, value] : std::initializer_list<std::pair<int, int>>{
                 {KEY_LEFTCTRL, 1}, {KEY_S, 1}, {KEY_S, 0}, {KEY_LEFTCTRL, 0}, {BTN_LEFT, 1}, {BTN_LEFT, 0}}) {
            emit(EV_KEY, code, value);
            emit(EV_SYN, SYN_REPORT, 0);
        }
        std::lock_guard g(lock);
        return !keys.empty() && !clicks.empty();
    })) << "libinput saw no event of the uinput device";
    inputs->keys->remove(*keyToken);
    inputs->clicks->remove(*clickToken);
    ioctl(fd, UI_DEV_DESTROY);
    ::close(fd);
    ASSERT_FALSE(keys.empty());
    EXPECT_TRUE(keys[0].modifiers.control);
    EXPECT_EQ(KeystrokeRecorder::caption(keys[0]), "⌃S");
    EXPECT_EQ(clicks[0].x, 640);
    EXPECT_EQ(clicks[0].y, 360);
}

} // namespace
} // namespace plim
