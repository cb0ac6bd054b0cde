#include "capture/capture.h"
#include "fuzz/side_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plim::fuzz::withSideFile(data, size, "keys.json", [](const auto& movie, const auto&) {
        auto read = plim::KeystrokeTrack::read(movie);
        if (!read)
            return;
        for (const auto& event : read->value.events)
            if (event.t < 0 || event.t > plim::longestRecordingMS) {
                std::fprintf(stderr, "a keystroke was read at %lld ms\n", static_cast<long long>(event.t));
                std::abort();
            }
    });
    return 0;
}
