#include "captions/caption_lines.h"

#include "base/text.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

namespace plim {

namespace {

std::optional<char32_t> firstCodePoint(std::string_view text)
{
    size_t at = 0;
    return text.empty() ? std::nullopt : utf8Decode(text, at);
}

std::optional<char32_t> lastCodePoint(std::string_view text)
{
    // Back up over continuation bytes to the start of the last sequence.
    if (text.empty())
        return std::nullopt;
    size_t start = text.size() - 1;
    while (start > 0 && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80 && text.size() - start < 4)
        --start;
    size_t at = start;
    auto c = utf8Decode(text, at);
    return c && at == text.size() ? c : std::nullopt;
}

bool unspaced(const std::optional<char32_t>& c)
{
    return c && isUnspacedScript(*c);
}

// Pauses are compared with a tolerance far below any recogniser's resolution, so that a
// pause of exactly `gap` written in decimals (2.1 - 1.2) is not taken as longer.
constexpr double pauseTolerance = 1e-9;

} // namespace

bool isUnspacedScript(char32_t c)
{
    auto in = [c](char32_t lo, char32_t hi) { return c >= lo && c <= hi; };
    return in(0x0E00, 0x0E7F) || in(0x1000, 0x109F) || in(0x1780, 0x17FF) || in(0x3000, 0x303F)
        || in(0x3040, 0x30FF) || in(0x3400, 0x4DBF) || in(0x4E00, 0x9FFF) || in(0xF900, 0xFAFF)
        || in(0xFF00, 0xFFEF) || in(0x20000, 0x2FFFF);
}

std::string joinWords(const std::vector<std::string>& words)
{
    std::string out;
    for (const std::string& word : words) {
        if (!out.empty() && !unspaced(lastCodePoint(out)) && !unspaced(firstCodePoint(word)))
            out += ' ';
        out += word;
    }
    return out;
}

std::vector<CaptionLine> captionLines(const std::vector<SpokenWord>& words, int maxWords, double gap)
{
    std::vector<CaptionLine> lines;
    std::vector<std::string> open;
    double start = 0, end = 0;
    auto close = [&] {
        lines.push_back({joinWords(open), start, end});
        open.clear();
    };
    for (const SpokenWord& word : words) {
        std::string text = trimmed(word.text);
        if (text.empty())
            continue;
        if (!open.empty()
            && (static_cast<int>(open.size()) >= maxWords || word.start - end > gap + pauseTolerance))
            close();
        if (open.empty())
            start = word.start;
        open.push_back(std::move(text));
        end = word.start + word.duration;
    }
    if (!open.empty())
        close();
    return lines;
}

std::string WhisperWordMapper::withoutControlTokens(std::string_view text)
{
    std::string out;
    size_t i = 0;
    while (i < text.size()) {
        if (text.compare(i, 2, "<|") == 0) {
            size_t bar = text.find('|', i + 2);
            if (bar != std::string_view::npos && bar + 1 < text.size() && text[bar + 1] == '>') {
                i = bar + 2;
                continue;
            }
        }
        out += text[i++];
    }
    return out;
}

std::vector<WhisperWord> WhisperWordMapper::spread(std::string_view text, double start, double end)
{
    std::vector<std::string> pieces;
    const std::string clean = withoutControlTokens(text);
    size_t i = 0;
    auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; };
    while (i < clean.size()) {
        while (i < clean.size() && blank(clean[i]))
            ++i;
        size_t j = i;
        while (j < clean.size() && !blank(clean[j]))
            ++j;
        if (j > i)
            pieces.push_back(clean.substr(i, j - i));
        i = j;
    }
    std::vector<WhisperWord> words;
    if (pieces.empty() || !(start < end))
        return words;
    const double n = static_cast<double>(pieces.size());
    for (size_t k = 0; k < pieces.size(); ++k) {
        const double i0 = static_cast<double>(k);
        words.push_back({" " + pieces[k], start + i0 * (end - start) / n, start + (i0 + 1) * (end - start) / n});
    }
    return words;
}

std::vector<SpokenWord> WhisperWordMapper::segments(const std::vector<WhisperSegment>& segments, double duration)
{
    struct Word {
        std::string text;
        double start, end;
    };
    std::vector<Word> words;
    for (const WhisperSegment& segment : segments) {
        const std::vector<WhisperWord> pieces = segment.words && !segment.words->empty()
            ? *segment.words
            : spread(segment.text, segment.start, segment.end);
        for (const WhisperWord& piece : pieces) {
            const std::string raw = withoutControlTokens(piece.text);
            std::string text = trimmed(raw);
            if (text.empty() || !std::isfinite(piece.start) || !std::isfinite(piece.end))
                continue;
            const bool continues = !raw.empty() && raw.front() != ' ' && raw.front() != '\t' && raw.front() != '\n';
            if (continues && !words.empty() && !unspaced(firstCodePoint(text))
                && !unspaced(lastCodePoint(words.back().text))) {
                words.back().text += text;
                words.back().end = std::max(words.back().end, piece.end);
                continue;
            }
            words.push_back({std::move(text), piece.start, piece.end});
        }
    }
    std::vector<SpokenWord> out;
    const double limit = std::isfinite(duration) ? duration : std::numeric_limits<double>::infinity();
    double floor = 0;
    for (Word& word : words) {
        const double start = std::max({word.start, floor, 0.0});
        if (start >= limit)
            break;
        const double end = std::min(std::max(word.end, start), limit);
        floor = end;
        out.push_back({std::move(word.text), start, end - start});
    }
    return out;
}

} // namespace plim
