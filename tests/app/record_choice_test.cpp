// The remembered record choice: what the panel opens on and what --toggle records.

#include "app/control_verbs.h"
#include "app/record_choice.h"
#include "base/json.h"
#include "base/settings.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

using namespace plim;
using namespace plim::testkit;

TEST(RecordChoice, RoundTripsAndTurnsIntoCaptureSettings)
{
    MemorySettingsStore settings;
    RecordChoice choice{.subject = RecordChoice::Subject::area,
        .area = Rect{10, 20, 640, 360},
        .microphone = true,
        .microphoneDevice = "alsa_input.usb",
        .keys = false,
        .countdownSeconds = 5};
    ASSERT_TRUE(choice.save(settings));
    EXPECT_EQ(RecordChoice::load(settings), choice);

    ASSERT_TRUE(settings.setValue("captureFrameRate", 30));
    CaptureSettings capture = choice.captureSettings(settings);
    EXPECT_EQ(capture.subject.kind, ScreenSubject::Kind::area);
    EXPECT_EQ(capture.subject.area, (Rect{10, 20, 640, 360}));
    EXPECT_EQ(capture.framesPerSecond, 30);
    EXPECT_EQ(capture.microphoneDevice, std::optional<std::string>("alsa_input.usb"));
    EXPECT_FALSE(capture.keycaps);

    // A device cleared in the panel is forgotten, not kept from before.
    choice.microphoneDevice.reset();
    ASSERT_TRUE(choice.save(settings));
    EXPECT_FALSE(RecordChoice::load(settings).microphoneDevice);

    // An area or window subject with nothing to point at records the display.
    choice.area.reset();
    choice.subject = RecordChoice::Subject::window;
    EXPECT_EQ(choice.captureSettings(settings).subject.kind, ScreenSubject::Kind::display);
}

TEST(RecordChoice, OddStoredValuesReadAsDefaultsAndADamagedFileIsLeftAlone)
{
    MemorySettingsStore settings;
    ASSERT_TRUE(settings.setValue("recordArea", Json::array({0, 0, -5, 100})));
    ASSERT_TRUE(settings.setValue("countdownSeconds", 99));
    ASSERT_TRUE(settings.setValue("recordWindow", -1));
    ASSERT_TRUE(settings.setValue("recordSubject", "everything"));
    RecordChoice read = RecordChoice::load(settings);
    EXPECT_EQ(read, RecordChoice{});

    TempDir dir;
    writeText(dir / "settings.json", "{ not json");
    FileSettingsStore file(dir / "settings.json");
    EXPECT_FALSE(RecordChoice{}.save(file));
    EXPECT_EQ(readText(dir / "settings.json"), "{ not json");
}

TEST(ControlVerbs, TheFirstVerbAfterTheProgramNameIsTheAction)
{
    EXPECT_EQ(requestedAction({"plim", "--verbose", "--record-area", "--stop"}), std::optional<std::string>("record-area"));
    EXPECT_EQ(requestedAction({"--toggle"}), std::nullopt); // the program's own name is not a verb
    EXPECT_EQ(requestedAction({"plim", "toggle"}), std::nullopt);
    ASSERT_NE(controlVerb("pause"), nullptr);
    EXPECT_STREQ(controlVerb("pause")->option, "--pause");
    EXPECT_EQ(controlVerb("--pause"), nullptr);
}

TEST(ControlVerbs, TheMenuEntrysActionsSendTheVerbsTheyAreNamedAfter)
{
    std::istringstream entry(readText(fs::path(PLIM_SOURCE_DIR) / "packaging" / "app.plim.Plim.desktop"));
    std::string line, listed, group;
    std::vector<std::string> actions;
    while (std::getline(entry, line)) {
        if (line.starts_with("Actions="))
            listed = line.substr(8);
        else if (line.starts_with("[Desktop Action "))
            group = line.substr(16, line.size() - 17);
        else if (line.starts_with("Exec=") && !group.empty()) {
            std::istringstream words(line.substr(5));
            std::vector<std::string> argv{std::istream_iterator<std::string>(words), {}};
            EXPECT_EQ(requestedAction(argv), std::optional<std::string>(group)) << line;
            actions.push_back(group + ";");
        }
    }
    EXPECT_EQ(listed, actions.at(0) + actions.at(1));
}
