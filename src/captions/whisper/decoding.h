#pragma once
// Decoding one 30-second window: the prompt, then one token at a time under Whisper's
// rules (no blank or end first, no control tokens, timestamps in rising pairs, the first
// one within a second), picked greedily or, above temperature 0, among the five likeliest.

#include "base/error.h"
#include "captions/whisper/model.h"
#include "captions/whisper/tokenizer.h"

#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace plim::whisper {

struct DecodeOptions {
    double temperature = 0;
    int sampleLength = 224;
    uint64_t seed = 1;
};

struct DecodeResult {
    std::vector<int> tokens;      // after the prompt, up to but without the end of text
    double sumLogprob = 0;        // of the tokens and the end of text
    double avgLogprob = 0;        // sumLogprob / (tokens + 1)
    double firstLogprob = 0;      // of the first token
    double noSpeechProb = 0;      // of <|nospeech|> right after <|startoftranscript|>
    double compressionRatio = 0;  // of the text's bytes through zlib
};

// The prompt is <|startoftranscript|> and what follows it (language, task), behind
// <|startofprev|> and earlier text when the window continues it. The model holds the window's
// audio states (Model::beginSequence); its token cache is emptied here. Fails `stopped`
// when `stop` is raised between tokens.
Result<DecodeResult> decodeWindow(Model& model, const Tokenizer& tokenizer, std::span<const int> prompt,
    const std::atomic<bool>& stop, const DecodeOptions& options);

// The language token the model finds likeliest after <|startoftranscript|>.
int detectLanguage(Model& model, const Tokenizer& tokenizer);

// Bytes of `text` over bytes of its zlib compression: repetitive text scores high.
double compressionRatio(const std::string& text);

} // namespace plim::whisper
