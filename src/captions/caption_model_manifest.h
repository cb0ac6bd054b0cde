#pragma once
// The Whisper model files Plim downloads for better captions: OpenAI's published
// checkpoints and the tokenizer files of the matching Hugging Face repository at a fixed
// commit. Every file is pinned by its size and a digest: 64 hex digits are the SHA-256 of
// the file, 40 digits a git blob identifier (SHA-1 over "blob ", the size in decimal, a
// zero byte and the content).

#include "base/error.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

class SettingsStore;

struct CaptionModelFile {
    enum class Source { checkpoint, tokenizer };
    Source source = Source::checkpoint;
    std::string remotePath; // path on its host, from the first "/"
    std::string path;       // name inside the size's folder
    int64_t size = 0;
    std::string check;      // lower-case hex
    bool operator==(const CaptionModelFile&) const = default;
};

// One model size: its name ("base"), what it holds and the files it is made of, in the
// order they are fetched.
struct CaptionModelSize {
    std::string name;
    std::string title; // "Whisper base"
    std::vector<CaptionModelFile> files;
    int64_t totalBytes() const;
    bool operator==(const CaptionModelSize&) const = default;
};

// Where the files come from. PLIM_MODEL_BASE_URL ("http://127.0.0.1:8080", no trailing
// slash needed) replaces both hosts, for a mirror or a test server.
struct CaptionModelHosts {
    std::string checkpoint = "https://openaipublic.azureedge.net";
    std::string tokenizer = "https://huggingface.co";
    static CaptionModelHosts fromEnvironment();
    std::string url(const CaptionModelFile& file) const;
};

// The sizes Plim offers: base and small (multilingual).
const std::vector<CaptionModelSize>& captionModelSizes();
// The size called `name`; fails with a sentence listing the sizes when there is none.
Result<CaptionModelSize> captionModelSize(std::string_view name);

// The setting that holds the chosen size, and the size used when it is unset or unknown.
inline constexpr std::string_view captionModelSizeKey = "captions.better.size";
inline constexpr std::string_view defaultCaptionModelSize = "base";
// The switch that turns better captions on.
inline constexpr std::string_view betterCaptionsKey = "captions.better.enabled";
CaptionModelSize chosenCaptionModelSize(const SettingsStore& settings);

} // namespace plim
