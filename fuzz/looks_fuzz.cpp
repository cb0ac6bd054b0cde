#include "fuzz/side_file.h"
#include "library/library.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plim::fuzz::withSideFile(data, size, "looks.json", [](const auto&, const auto& file) {
        plim::LookStore store(file);
        auto look = store.look("Default");
        (void)look;
    });
    return 0;
}
