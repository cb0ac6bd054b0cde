#include "capture/capture_quality.h"

#include "base/json.h"
#include "base/log.h"
#include "base/text.h"

#include <cmath>

namespace plim {

CaptureQuality CaptureQualityRules::parse(std::string_view raw)
{
    if (raw == "2160p")
        return CaptureQuality::q2160p;
    if (raw == "1440p")
        return CaptureQuality::q1440p;
    if (raw == "1080p")
        return CaptureQuality::q1080p;
    if (raw == "720p")
        return CaptureQuality::q720p;
    return CaptureQuality::native;
}

std::string_view CaptureQualityRules::rawValue(CaptureQuality quality)
{
    switch (quality) {
    case CaptureQuality::q2160p: return "2160p";
    case CaptureQuality::q1440p: return "1440p";
    case CaptureQuality::q1080p: return "1080p";
    case CaptureQuality::q720p: return "720p";
    case CaptureQuality::native: break;
    }
    return "native";
}

std::optional<Size> CaptureQualityRules::box(CaptureQuality quality)
{
    switch (quality) {
    case CaptureQuality::q2160p: return Size{3840, 2160};
    case CaptureQuality::q1440p: return Size{2560, 1440};
    case CaptureQuality::q1080p: return Size{1920, 1080};
    case CaptureQuality::q720p: return Size{1280, 720};
    case CaptureQuality::native: break;
    }
    return std::nullopt;
}

Size CaptureQualityRules::fit(Size source, Size box)
{
    if (!std::isfinite(source.width) || !std::isfinite(source.height) || source.width < 1 || source.height < 1)
        return source;
    if (source.width < source.height && box.width > box.height)
        box = {box.height, box.width};
    double rw = box.width / source.width, rh = box.height / source.height;
    if (std::min(rw, rh) >= 1)
        return source;
    if (rw <= rh)
        return {box.width, source.height * rw};
    return {source.width * rh, box.height};
}

Size CaptureQualityRules::outputSize(CaptureQuality quality, Size sourcePoints, double backingScale)
{
    double s = std::isnormal(backingScale) && backingScale > 0 ? backingScale : 1.0;
    Size pixels{sourcePoints.width * s, sourcePoints.height * s};
    auto fitted = box(quality);
    return fitted ? fit(pixels, *fitted) : pixels;
}

Size CaptureQualityRules::evenSize(Size size)
{
    auto even = [](double v) -> std::optional<double> {
        if (!std::isfinite(v) || v < 2 || v > 1'000'000)
            return std::nullopt;
        return double(static_cast<int64_t>(v) & ~int64_t(1));
    };
    auto w = even(size.width), h = even(size.height);
    if (!w || !h)
        return {0, 0};
    return {*w, *h};
}

int CaptureQualityRules::frameRate(std::optional<double> setting) { return setting && *setting == 30 ? 30 : 60; }

namespace {

// A setting Plim cannot use is read as its default, and said.
void noteUnusable(std::string_view key, const Json& value, std::string_view takes, std::string_view used)
{
    std::string held = value.dump(-1, ' ', false, Json::error_handler_t::replace);
    if (held.size() > 40)
        held = held.substr(0, 40) + "...";
    held = escapedText(held);
    logLine(LogArea::main, "The setting " + std::string(key) + " holds " + held + ", but it takes " + std::string(takes)
            + ", so recordings use " + std::string(used)
            + ". The settings file was left as it is; choose the setting again to replace it.");
}

} // namespace

CaptureQuality CaptureQualityRules::fromSettings(const SettingsStore& settings)
{
    auto value = settings.value(settingKey);
    if (!value)
        return CaptureQuality::native;
    const CaptureQuality quality = parse(value->is_string() ? value->get<std::string>() : "");
    if (quality == CaptureQuality::native && *value != "native")
        noteUnusable(settingKey, *value, "native, 2160p, 1440p, 1080p or 720p", "the screen's own size");
    return quality;
}

int CaptureQualityRules::frameRateFromSettings(const SettingsStore& settings)
{
    auto value = settings.value(frameRateKey);
    if (!value)
        return frameRate(std::nullopt);
    if (!value->is_number() || (*value != 30 && *value != 60))
        noteUnusable(frameRateKey, *value, "30 or 60", "60 frames a second");
    return frameRate(value->is_number() ? std::optional<double>(value->get<double>()) : std::nullopt);
}

} // namespace plim
