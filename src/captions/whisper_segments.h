#pragma once
// What the Whisper engine hands back for a stretch of sound: segments of text with their
// times, and, when it could place them, the word pieces inside each. A piece's text is as
// the tokenizer decoded it: a leading blank starts a new word, no blank continues the
// previous one ("record", "ing"). Times are seconds from the start of the samples given.

#include <optional>
#include <string>
#include <vector>

namespace plim {

struct WhisperWord {
    std::string text;
    double start = 0;
    double end = 0;
    bool operator==(const WhisperWord&) const = default;
};

struct WhisperSegment {
    std::string text;
    double start = 0;
    double end = 0;
    std::optional<std::vector<WhisperWord>> words;
    bool operator==(const WhisperSegment&) const = default;
};

} // namespace plim
