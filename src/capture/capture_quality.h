#pragma once
// The size and rate a recording is written at: the quality setting caps the output by a
// landscape box (turned for portrait sources, never scaling up), sizes are made even for
// the encoder, and the frame rate is 30 or 60.

#include "base/geometry.h"
#include "base/settings.h"

#include <optional>
#include <string_view>

namespace plim {

enum class CaptureQuality { native, q2160p, q1440p, q1080p, q720p };

struct CaptureQualityRules {
    static constexpr const char* settingKey = "captureQuality";
    static constexpr const char* frameRateKey = "captureFrameRate";

    // "native", "2160p", "1440p", "1080p", "720p"; anything else is native.
    static CaptureQuality parse(std::string_view raw);
    static std::string_view rawValue(CaptureQuality quality);
    // The box a quality fits into; nothing for native.
    static std::optional<Size> box(CaptureQuality quality);

    // Source points times the backing scale (1 when it is not a usable number), fitted into
    // the quality's box.
    static Size outputSize(CaptureQuality quality, Size sourcePoints, double backingScale);
    static Size fit(Size source, Size box);
    // Each side truncated and rounded down to even; 0 x 0 when a side is not finite or not
    // within 2 ... 1,000,000.
    static Size evenSize(Size size);

    // 30 when the setting is exactly 30, else 60.
    static int frameRate(std::optional<double> setting);

    static CaptureQuality fromSettings(const SettingsStore& settings);
    static int frameRateFromSettings(const SettingsStore& settings);
};

} // namespace plim
