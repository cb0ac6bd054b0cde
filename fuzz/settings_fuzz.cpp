#include "base/settings.h"
#include "base/json.h"
#include "fuzz/side_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plim::fuzz::withSideFile(data, size, "settings.json", [](const auto&, const auto& file) {
        plim::FileSettingsStore store(file);
        auto value = store.value("recordPointer");
        (void)value;
    });
    return 0;
}
