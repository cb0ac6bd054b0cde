#include "fuzz/side_file.h"
#include "library/library.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plim::fuzz::withSideFile(data, size, "id.json", [](const auto& movie, const auto&) {
        auto read = plim::PlimIdentity::read("B", movie.parent_path());
        (void)read;
    });
    return 0;
}
