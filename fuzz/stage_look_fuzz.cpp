#include "fuzz/side_file.h"
#include "stage/stage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plim::fuzz::withSideFile(data, size, "stage.json", [](const auto&, const auto& file) {
        auto read = plim::StageSpecFile::read(file);
        (void)read;
    });
    return 0;
}
