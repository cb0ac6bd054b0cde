#include "app/record_choice.h"

#include "base/json.h"
#include "base/settings.h"
#include "capture/capture_quality.h"

#include <cmath>

namespace plim {

namespace {

constexpr const char* subjectKey = "recordSubject";
constexpr const char* displayKey = "recordDisplay";
constexpr const char* windowKey = "recordWindow";
constexpr const char* areaKey = "recordArea";
constexpr const char* microphoneKey = "recordMicrophone";
constexpr const char* microphoneDeviceKey = "recordMicrophoneDevice";
constexpr const char* systemSoundKey = "recordSystemSound";
constexpr const char* systemSoundDeviceKey = "recordSystemSoundDevice";
constexpr const char* cameraKey = "recordCamera";
constexpr const char* cameraDeviceKey = "recordCameraDevice";
constexpr const char* keysKey = "recordKeys";
constexpr const char* countdownKey = "countdownSeconds";

std::optional<std::string> optionalText(const SettingsStore& settings, const char* key)
{
    auto value = settings.value(key);
    if (!value || !value->is_string() || value->get<std::string>().empty())
        return std::nullopt;
    return value->get<std::string>();
}

std::optional<Rect> storedArea(const SettingsStore& settings)
{
    auto value = settings.value(areaKey);
    if (!value || !value->is_array() || value->size() != 4)
        return std::nullopt;
    double v[4];
    for (size_t i = 0; i < 4; ++i) {
        if (!(*value)[i].is_number())
            return std::nullopt;
        v[i] = (*value)[i].get<double>();
        if (!std::isfinite(v[i]) || std::abs(v[i]) > 1e6)
            return std::nullopt;
    }
    if (v[2] < 1 || v[3] < 1)
        return std::nullopt;
    return Rect{v[0], v[1], v[2], v[3]};
}

Status storeText(SettingsStore& settings, const char* key, const std::optional<std::string>& text)
{
    return text ? settings.setValue(key, *text) : settings.remove(key);
}

} // namespace

RecordChoice RecordChoice::load(const SettingsStore& settings)
{
    RecordChoice choice;
    std::string subject = settings.string(subjectKey, "display");
    choice.subject = subject == "window" ? Subject::window : subject == "area" ? Subject::area : Subject::display;
    choice.display = settings.string(displayKey, "");
    double window = settings.number(windowKey, 0);
    choice.window = window >= 0 && window <= 4294967295.0 ? uint32_t(window) : 0;
    choice.area = storedArea(settings);
    choice.microphone = settings.boolean(microphoneKey, false);
    choice.microphoneDevice = optionalText(settings, microphoneDeviceKey);
    choice.systemSound = settings.boolean(systemSoundKey, false);
    choice.systemSoundDevice = optionalText(settings, systemSoundDeviceKey);
    choice.camera = settings.boolean(cameraKey, false);
    choice.cameraDevice = optionalText(settings, cameraDeviceKey);
    choice.keys = settings.boolean(keysKey, true);
    double countdown = settings.number(countdownKey, 3);
    choice.countdownSeconds = countdown >= 0 && countdown <= 10 ? int(countdown) : 3;
    return choice;
}

Status RecordChoice::save(SettingsStore& settings) const
{
    const char* names[] = {"display", "window", "area"};
    PLIM_TRY(settings.setValue(subjectKey, names[int(subject)]));
    PLIM_TRY(settings.setValue(displayKey, display));
    PLIM_TRY(settings.setValue(windowKey, window));
    if (area)
        PLIM_TRY(settings.setValue(areaKey, Json::array({area->x, area->y, area->width, area->height})));
    PLIM_TRY(settings.setValue(microphoneKey, microphone));
    PLIM_TRY(storeText(settings, microphoneDeviceKey, microphoneDevice));
    PLIM_TRY(settings.setValue(systemSoundKey, systemSound));
    PLIM_TRY(storeText(settings, systemSoundDeviceKey, systemSoundDevice));
    PLIM_TRY(settings.setValue(cameraKey, camera));
    PLIM_TRY(storeText(settings, cameraDeviceKey, cameraDevice));
    PLIM_TRY(settings.setValue(keysKey, keys));
    return settings.setValue(countdownKey, countdownSeconds);
}

CaptureSettings RecordChoice::captureSettings(const SettingsStore& settings) const
{
    CaptureSettings capture;
    capture.quality = CaptureQualityRules::fromSettings(settings);
    capture.framesPerSecond = CaptureQualityRules::frameRateFromSettings(settings);
    capture.subject = ScreenSubject::display(display);
    if (subject == Subject::window && window != 0)
        capture.subject = ScreenSubject::window(window);
    if (subject == Subject::area && area)
        capture.subject = ScreenSubject::areaOf(*area);
    capture.keycaps = keys;
    capture.microphone = microphone;
    capture.microphoneDevice = microphoneDevice;
    capture.systemSound = systemSound;
    capture.systemSoundDevice = systemSoundDevice;
    capture.camera = camera;
    capture.cameraDevice = cameraDevice;
    return capture;
}

} // namespace plim
