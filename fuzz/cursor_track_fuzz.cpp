#include "capture/capture.h"
#include "fuzz/side_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plim::fuzz::withSideFile(data, size, "cursor.json", [](const auto& movie, const auto&) {
        auto read = plim::CursorTrack::read(movie);
        (void)read;
    });
    return 0;
}
