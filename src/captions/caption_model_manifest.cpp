#include "captions/caption_model_manifest.h"

#include "base/settings.h"

#include <cstdlib>

namespace plim {

namespace {

// The tokenizer files are the same in every multilingual Whisper repository below
// large-v3; each size takes them from its own repository at the commit named.
constexpr int64_t vocabBytes = 835'550;
constexpr std::string_view vocabSha256 = "8f680bba319e01a653d2e8a5dbc17a9157179e0576e6ce74ce0c06356c6e24f9";
constexpr int64_t mergesBytes = 493'869;
constexpr std::string_view mergesSha256 = "2df2990a395e35e8dfbc7511e08c12d56018d8d04691e0133e5d63b21e154dc6";

CaptionModelSize makeSize(std::string name, std::string checkpointSha256, int64_t checkpointBytes,
    std::string repository, std::string commit)
{
    CaptionModelSize size;
    size.title = "Whisper " + name;
    using Source = CaptionModelFile::Source;
    size.files.push_back({Source::checkpoint,
        "/main/whisper/models/" + checkpointSha256 + "/" + name + ".pt", "model.pt", checkpointBytes,
        checkpointSha256});
    const std::string tokenizerFolder = "/" + repository + "/resolve/" + commit + "/";
    size.files.push_back({Source::tokenizer, tokenizerFolder + "vocab.json", "vocab.json", vocabBytes,
        std::string(vocabSha256)});
    size.files.push_back({Source::tokenizer, tokenizerFolder + "merges.txt", "merges.txt", mergesBytes,
        std::string(mergesSha256)});
    size.name = std::move(name);
    return size;
}

std::string withoutTrailingSlash(std::string text)
{
    while (!text.empty() && text.back() == '/')
        text.pop_back();
    return text;
}

} // namespace

int64_t CaptionModelSize::totalBytes() const
{
    int64_t total = 0;
    for (const auto& file : files)
        total += file.size;
    return total;
}

CaptionModelHosts CaptionModelHosts::fromEnvironment()
{
    CaptionModelHosts hosts;
    if (const char* base = std::getenv("PLIM_MODEL_BASE_URL"); base && *base) {
        hosts.checkpoint = withoutTrailingSlash(base);
        hosts.tokenizer = hosts.checkpoint;
    }
    return hosts;
}

std::string CaptionModelHosts::url(const CaptionModelFile& file) const
{
    return (file.source == CaptionModelFile::Source::checkpoint ? checkpoint : tokenizer) + file.remotePath;
}

const std::vector<CaptionModelSize>& captionModelSizes()
{
    static const std::vector<CaptionModelSize> sizes = {
        makeSize("base", "ed3a0b6b1c0edf879ad9b11b1af5a0e6ab5db9205f891f668f8b0e6c6326e34e", 145'262'807,
            "openai/whisper-base", "e37978b90ca9030d5170a5c07aadb050351a65bb"),
        makeSize("small", "9ecf779972d90ba49c06d968637d720dd632c55bbf19d441fb42bf17a411e794", 483'617'219,
            "openai/whisper-small", "973afd24965f72e36ca33b3055d56a652f456b4d"),
    };
    return sizes;
}

Result<CaptionModelSize> captionModelSize(std::string_view name)
{
    std::string names;
    for (const auto& size : captionModelSizes()) {
        if (size.name == name)
            return size;
        names += (names.empty() ? "" : " or ") + size.name;
    }
    return fail("There is no caption model size called \"" + std::string(name) + "\": choose " + names + ".",
        Error::Kind::refused);
}

CaptionModelSize chosenCaptionModelSize(const SettingsStore& settings)
{
    auto chosen = captionModelSize(settings.string(std::string(captionModelSizeKey), std::string(defaultCaptionModelSize)));
    return chosen ? *chosen : *captionModelSize(defaultCaptionModelSize);
}

} // namespace plim
