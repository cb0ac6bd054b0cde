#include "fuzz/side_file.h"
#include "library/library.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plim::fuzz::withSideFile(data, size, "edits.json", [](const auto& movie, const auto&) {
        auto read = plim::PlimEdits::read(movie);
        (void)read;
    });
    return 0;
}
