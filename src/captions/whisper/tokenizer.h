#pragma once
// Whisper's tokenizer: GPT-2 style byte-level BPE over vocab.json and merges.txt, with the
// special tokens laid out after the text tokens: <|endoftext|>, <|startoftranscript|>, one
// per language, <|translate|>, <|transcribe|>, <|startoflm|>, <|startofprev|>,
// <|nospeech|>, <|notimestamps|>, then 1501 timestamps <|0.00|> ... <|30.00|>.

#include "base/error.h"

#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace plim::whisper {

struct SpecialTokens {
    int endOfText = 0, startOfTranscript = 0, firstLanguage = 0, languages = 0;
    int translate = 0, transcribe = 0, startOfLm = 0, startOfPrev = 0, noSpeech = 0, noTimestamps = 0;
    int firstTimestamp = 0;
};

class Tokenizer {
public:
    // `vocabSize` is the model's; the special tokens are placed from it. The sentence of a
    // failure names the file and what is wrong with it.
    static Result<Tokenizer> load(const std::filesystem::path& vocabJson, const std::filesystem::path& mergesTxt,
        int vocabSize);
    static Result<Tokenizer> fromText(std::string_view vocabJson, std::string_view mergesTxt, int vocabSize);

    std::vector<int> encode(std::string_view text) const;
    // The bytes of the text tokens among `tokens` (special ones are left out), which may
    // end inside a character when the tokens stop inside one.
    std::string decode(std::span<const int> tokens) const;

    const SpecialTokens& special() const { return m_special; }
    // English-only checkpoints have a vocabulary of 51864; the others are multilingual.
    bool multilingual() const { return m_multilingual; }
    std::optional<int> languageToken(std::string_view code) const;
    std::string languageCode(int token) const;
    bool isTimestamp(int token) const { return token >= m_special.firstTimestamp; }
    double timeOf(int token) const { return (token - m_special.firstTimestamp) * 0.02; }

private:
    std::vector<std::string> bpe(std::string_view word) const;

    std::unordered_map<std::string, int> m_ids;
    std::vector<std::string> m_pieces;                 // id -> byte-level string, as in vocab.json
    std::map<std::pair<std::string, std::string>, int> m_ranks;
    SpecialTokens m_special;
    bool m_multilingual = true;
};

} // namespace plim::whisper
