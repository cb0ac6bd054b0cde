#include "captions/whisper/checkpoint.h"
#include "fuzz/side_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plim::fuzz::withSideFile(data, size, "model.pt", [](const auto&, const auto& file) {
        auto checkpoint = plim::whisper::readCheckpoint(file);
        if (!checkpoint)
            return;
        for (auto& [name, tensor] : checkpoint->weights) {
            size_t count = 1;
            for (auto n : tensor.shape)
                count *= size_t(n);
            if (count != tensor.data.size()) {
                std::fprintf(stderr, "%s holds %zu values for its shape's %zu\n", name.c_str(), tensor.data.size(), count);
                std::abort();
            }
        }
    });
    return 0;
}
