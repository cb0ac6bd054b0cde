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

    // How fast the engine runs a 30-s window with random weights of a published size
    // ("tiny", "base", "small", "medium"; speed does not depend on the weights), for the
    // benchmark. Each time is the best of `runs`.
    struct Speed {
        double parameters = 0;    // weights in the model
        double encoderFlop = 0;   // multiply-adds (x2) of the encoder's products for one window
        double frontEndMs = 0;    // log-mel of 30 s of sound (and the 30 s of padding behind it)
        double encoderMs = 0;     // one window through the encoder
        double encoderCpuMs = 0;  // the processor time it took, all threads together (best of the runs)
        double crossMs = 0;       // the decoder's cross-attention keys and values for a window
        double tokenMs = 0;       // one token through the decoder and its key/value cache
        double loopTokenMs = 0;   // one token of the decoding loop, its rules and choice included
        int loopTokens = 0;       // how many tokens that loop ran (to its 224-token limit or an end)
    };
    static Result<Speed> measureSpeed(const std::string& size, int runs);

private:
    struct Parts;
    explicit WhisperTranscriber(std::unique_ptr<Parts> parts);
    std::unique_ptr<Parts> m;
};

} // namespace plim
