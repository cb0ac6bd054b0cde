#pragma once
// What the user last chose to record, kept in the settings: the record panel opens on it,
// and `plim --toggle` records it again without asking.

#include "base/error.h"
#include "base/geometry.h"
#include "capture/capture_session.h"

#include <optional>
#include <string>

namespace plim {

class SettingsStore;

struct RecordChoice {
    enum class Subject { display, window, area };

    Subject subject = Subject::display;
    std::string display;         // the display's name; empty for the primary one
    uint32_t window = 0;         // a window id lasts one desktop session only
    std::optional<Rect> area;    // the last area picked, in global points
    bool microphone = false;
    std::optional<std::string> microphoneDevice;
    bool systemSound = false;
    std::optional<std::string> systemSoundDevice;
    bool camera = false;
    std::optional<std::string> cameraDevice;
    bool keys = true;
    int countdownSeconds = 3;    // 0 to 10

    bool operator==(const RecordChoice&) const = default;

    // The stored choice; values out of range or of the wrong kind read as their defaults.
    static RecordChoice load(const SettingsStore& settings);
    Status save(SettingsStore& settings) const;

    // The capture settings for this choice, with the quality and frame rate of the
    // settings. A window subject whose id is 0, or an area subject with no area, records
    // the display instead.
    CaptureSettings captureSettings(const SettingsStore& settings) const;
};

} // namespace plim
