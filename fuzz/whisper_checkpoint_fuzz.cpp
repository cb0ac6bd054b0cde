#include "captions/whisper_transcriber.h"
#include "fuzz/side_file.h"

// The input is a model folder's model.pt; loading must fail with a sentence or succeed, and
// leave the file as it was.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const auto folder = plim::fuzz::folder() / "model";
    std::filesystem::create_directories(folder);
    {
        std::ofstream out(folder / "model.pt", std::ios::binary | std::ios::trunc);
        out << bytes;
    }
    auto loaded = plim::WhisperTranscriber::load(folder);
    if (!loaded && loaded.error().sentence.empty()) {
        std::fprintf(stderr, "loading failed without a sentence\n");
        std::abort();
    }
    std::ifstream in(folder / "model.pt", std::ios::binary);
    if (std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>()) != bytes) {
        std::fprintf(stderr, "loading changed model.pt\n");
        std::abort();
    }
    return 0;
}
