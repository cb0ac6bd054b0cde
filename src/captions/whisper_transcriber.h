#pragma once
// Speech to timed text with an OpenAI Whisper model, run on the CPU through OpenBLAS.
//
// The model folder holds model.pt (an OpenAI Whisper checkpoint of any size; its "dims"
// entry says which) and the tokenizer's vocab.json and merges.txt (GPT-2 style
// byte-level BPE). Loading reads all three and keeps the weights in memory as floats
// (about 4 bytes a parameter: base 300 MB, small 1 GB).
//
// One object transcribes one recording at a time; transcribe() blocks its caller, so
// call it from a worker thread. Different objects may run at once.

#include "base/error.h"
#include "captions/whisper_segments.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace plim {

class WhisperTranscriber {
public:
    // Fails with a sentence naming the file that is missing, unreadable or not a model;
    // the folder's files are only read.
    static Result<std::unique_ptr<WhisperTranscriber>> load(const std::filesystem::path& folder);
    ~WhisperTranscriber();

    // 16 kHz mono float samples. `stop` is polled between 30-s windows and between
    // tokens (the result is then an error of kind `stopped`); `progress` is called on the
    // caller's thread with the share of the sound done, 0 to 1. Without `language` a
    // multilingual model picks it from the first 30 seconds; an English-only model
    // always transcribes English. Segments come in time order, with word pieces.
    Result<std::vector<WhisperSegment>> transcribe(std::span<const float> samples, const std::atomic<bool>& stop,
        const std::function<void(double)>& progress, std::optional<std::string> language = {});

    // The language of the last transcription ("en"), given or found.
    std::string language() const;

private:
    struct Parts;
    explicit WhisperTranscriber(std::unique_ptr<Parts> parts);
    std::unique_ptr<Parts> m;
};

} // namespace plim
