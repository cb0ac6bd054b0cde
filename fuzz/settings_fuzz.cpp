#include "base/json.h"
#include "base/settings.h"
#include "capture/capture_quality.h"
#include "fuzz/side_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plim::fuzz::withSideFile(data, size, "settings.json", [](const auto&, const auto& file) {
        plim::FileSettingsStore store(file);
        auto value = store.value("recordPointer");
        (void)value;
        (void)plim::CaptureQualityRules::fromSettings(store);
        const int fps = plim::CaptureQualityRules::frameRateFromSettings(store);
        if (fps != 30 && fps != 60) {
            std::fprintf(stderr, "the settings gave a frame rate of %d\n", fps);
            std::abort();
        }
    });
    return 0;
}
