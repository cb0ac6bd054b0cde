#pragma once
// From recognised words to caption lines. Every engine hands its words, with times, to
// the same line builder, so captions look alike whichever engine made them: a line holds
// at most 7 words, and a pause of more than 0.9 s starts a new one. Words of scripts
// written without blanks (Thai, CJK, kana, ...) are joined without them.

#include "captions/caption_track.h"
#include "captions/whisper_segments.h"

#include <string>
#include <string_view>
#include <vector>

namespace plim {

// One recognised word: its text and where it is spoken, in seconds.
struct SpokenWord {
    std::string text;
    double start = 0;
    double duration = 0;
    bool operator==(const SpokenWord&) const = default;
};

inline constexpr int captionMaxWords = 7;
inline constexpr double captionGap = 0.9;

// Lines from words in time order: blank words are skipped; a line is closed before a word
// when it already holds `maxWords` words or when the pause since the previous word's end
// is longer than `gap`. A line runs from its first word's start to its last word's end.
std::vector<CaptionLine> captionLines(const std::vector<SpokenWord>& words, int maxWords = captionMaxWords,
    double gap = captionGap);

// The words with one blank between them, none where either side is in an unspaced script.
std::string joinWords(const std::vector<std::string>& words);

// Thai, Myanmar, Khmer, CJK symbols, kana, CJK ideographs (with extension A, the
// compatibility block and the whole supplementary ideographic plane) and the half- and
// full-width forms.
bool isUnspacedScript(char32_t c);

// Whisper's segments as words for the line builder.
struct WhisperWordMapper {
    // Each segment's word pieces when it has any, else its text spread over it. Pieces
    // without a leading blank are glued onto the word before (not across an unspaced
    // script); then times are made to rise, words past `duration` (the plim's length;
    // no limit when not finite) are dropped and the last one kept is cut at it.
    static std::vector<SpokenWord> segments(const std::vector<WhisperSegment>& segments, double duration);

    // The text without its control tokens ("<|en|>"), split at blanks, each piece an
    // equal share of start...end with a leading blank. Nothing when no piece is left or
    // start >= end.
    static std::vector<WhisperWord> spread(std::string_view text, double start, double end);

    // The text with every "<|...|>" marker removed.
    static std::string withoutControlTokens(std::string_view text);
};

} // namespace plim
