#include "captions/whisper/tokenizer.h"

#include "base/files.h"
#include "base/text.h"

#include <nlohmann/json.hpp>
#include <utf8proc.h>

namespace plim::whisper {

namespace {

// Language tokens in the order the models were trained with.
constexpr const char* languageCodes[] = {"en", "zh", "de", "es", "ru", "ko", "fr", "ja", "pt", "tr", "pl", "ca",
    "nl", "ar", "sv", "it", "id", "hi", "fi", "vi", "he", "uk", "el", "ms", "cs", "ro", "da", "hu", "ta", "no", "th",
    "ur", "hr", "bg", "lt", "la", "mi", "ml", "cy", "sk", "te", "fa", "lv", "bn", "sr", "az", "sl", "kn", "et", "mk",
    "br", "eu", "is", "hy", "ne", "mn", "bs", "kk", "sq", "sw", "gl", "mr", "pa", "si", "km", "sn", "yo", "so", "af",
    "oc", "ka", "be", "tg", "sd", "gu", "am", "yi", "lo", "uz", "fo", "ht", "ps", "tk", "nn", "mt", "sa", "lb", "my",
    "bo", "tl", "mg", "as", "tt", "haw", "ln", "ha", "ba", "jw", "su", "yue"};
constexpr int knownLanguages = int(std::size(languageCodes));
constexpr int timestamps = 1501;
constexpr int englishOnlyVocab = 51864;

// Byte-level BPE writes every byte as a printable character: the printable Latin-1 bytes
// stand for themselves, the rest take code points from 256 up, in byte order.
struct ByteMap {
    char32_t toChar[256];
    std::unordered_map<char32_t, uint8_t> toByte;
    ByteMap()
    {
        char32_t next = 256;
        for (int b = 0; b < 256; ++b) {
            bool printable = (b >= '!' && b <= '~') || (b >= 0xA1 && b <= 0xAC) || (b >= 0xAE && b <= 0xFF);
            toChar[b] = printable ? char32_t(b) : next++;
            toByte[toChar[b]] = uint8_t(b);
        }
    }
};

const ByteMap& byteMap()
{
    static const ByteMap map;
    return map;
}

// The code point at `at`, moving past it; a malformed byte reads as U+FFFD and is skipped.
char32_t nextChar(std::string_view text, size_t& at)
{
    if (auto c = utf8Decode(text, at))
        return *c;
    ++at;
    return 0xFFFD;
}

enum class CharClass { letter, number, space, other };

CharClass classOf(char32_t c)
{
    switch (utf8proc_category(utf8proc_int32_t(c))) {
    case UTF8PROC_CATEGORY_LU: case UTF8PROC_CATEGORY_LL: case UTF8PROC_CATEGORY_LT: case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
        return CharClass::letter;
    case UTF8PROC_CATEGORY_ND: case UTF8PROC_CATEGORY_NL: case UTF8PROC_CATEGORY_NO:
        return CharClass::number;
    default:
        break;
    }
    bool space = c == ' ' || (c >= '\t' && c <= '\r') || c == 0x85 || c == 0xA0 || c == 0x1680
        || (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
    return space ? CharClass::space : CharClass::other;
}

// GPT-2's pre-tokenisation: contractions, an optional blank followed by a run of letters,
// of digits or of other symbols, and runs of blanks (the last blank before a word stays
// with the word).
std::vector<std::string> pieces(std::string_view text)
{
    std::vector<char32_t> cs;
    std::vector<size_t> starts;
    for (size_t at = 0; at < text.size();) {
        starts.push_back(at);
        cs.push_back(nextChar(text, at));
    }
    starts.push_back(text.size());
    std::vector<std::string> out;
    size_t i = 0;
    auto emit = [&](size_t end) {
        out.emplace_back(text.substr(starts[i], starts[end] - starts[i]));
        i = end;
    };
    while (i < cs.size()) {
        if (cs[i] == '\'') {
            bool matched = false;
            for (std::string_view tail : {"s", "t", "re", "ve", "m", "ll", "d"}) {
                bool same = true;
                for (size_t k = 0; same && k < tail.size(); ++k)
                    same = i + 1 + k < cs.size() && cs[i + 1 + k] == char32_t(tail[k]);
                if (same) {
                    emit(i + 1 + tail.size());
                    matched = true;
                    break;
                }
            }
            if (matched)
                continue;
        }
        size_t j = i + (cs[i] == ' ' && i + 1 < cs.size() && classOf(cs[i + 1]) != CharClass::space ? 1 : 0);
        CharClass k = classOf(cs[j]);
        if (k != CharClass::space) {
            size_t end = j;
            while (end < cs.size() && classOf(cs[end]) == k)
                ++end;
            emit(end);
            continue;
        }
        size_t end = i;
        while (end < cs.size() && classOf(cs[end]) == CharClass::space)
            ++end;
        emit(end == cs.size() || end - i == 1 ? end : end - 1);
    }
    return out;
}

} // namespace

Result<Tokenizer> Tokenizer::load(const std::filesystem::path& vocabJson, const std::filesystem::path& mergesTxt,
    int vocabSize)
{
    std::string texts[2];
    const std::filesystem::path* paths[2] = {&vocabJson, &mergesTxt};
    for (int i = 0; i < 2; ++i) {
        auto bytes = readFileBytes(*paths[i], size_t(64) << 20);
        if (!bytes)
            return fail("The Whisper tokenizer file " + paths[i]->string() + " could not be read ("
                    + bytes.error().sentence + "). Nothing was changed; download the model again.",
                bytes.error().kind);
        texts[i] = std::move(*bytes);
    }
    return fromText(texts[0], texts[1], vocabSize);
}

Result<Tokenizer> Tokenizer::fromText(std::string_view vocabJson, std::string_view mergesTxt, int vocabSize)
{
    auto bad = [](const char* file, const std::string& why) {
        return fail(std::string("The Whisper tokenizer file ") + file + " could not be used: " + why
                + ". It was left as it is; downloading the model again replaces it.",
            Error::Kind::corrupt);
    };
    Tokenizer t;
    auto json = nlohmann::json::parse(vocabJson, nullptr, false);
    if (!json.is_object())
        return bad("vocab.json", "it is not a JSON object of pieces and their numbers");
    int eot = -1, textTokens = 0;
    for (auto& [piece, id] : json.items()) {
        if (!id.is_number_integer() || id.get<int64_t>() < 0 || id.get<int64_t>() >= vocabSize)
            return bad("vocab.json", "the piece \u201c" + piece + "\u201d has no number within the model's vocabulary");
        int n = id.get<int>();
        if (piece == "<|endoftext|>")
            eot = n;
        else if (piece.starts_with("<|") && piece.ends_with("|>"))
            continue; // the special tokens' places follow from the vocabulary size
        else
            textTokens = std::max(textTokens, n + 1);
        if (size_t(n) >= t.m_pieces.size())
            t.m_pieces.resize(size_t(n) + 1);
        t.m_pieces[size_t(n)] = piece;
        t.m_ids[piece] = n;
    }
    if (eot < 0)
        eot = textTokens;
    if (eot < textTokens)
        return bad("vocab.json", "<|endoftext|> sits among the text pieces");
    SpecialTokens& s = t.m_special;
    s.endOfText = eot;
    s.startOfTranscript = eot + 1;
    s.firstLanguage = eot + 2;
    s.languages = vocabSize - timestamps - eot - 8;
    if (s.languages < 1 || s.languages > knownLanguages)
        return bad("vocab.json", "its " + std::to_string(eot) + " text pieces do not fit a model with "
                + std::to_string(vocabSize) + " tokens");
    s.translate = s.firstLanguage + s.languages;
    s.transcribe = s.translate + 1;
    s.startOfLm = s.translate + 2;
    s.startOfPrev = s.translate + 3;
    s.noSpeech = s.translate + 4;
    s.noTimestamps = s.translate + 5;
    s.firstTimestamp = s.translate + 6;
    t.m_multilingual = vocabSize != englishOnlyVocab;

    int rank = 0;
    for (size_t at = 0; at < mergesTxt.size();) {
        size_t end = mergesTxt.find('\n', at);
        if (end == std::string_view::npos)
            end = mergesTxt.size();
        std::string_view line = mergesTxt.substr(at, end - at);
        at = end + 1;
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        if (line.empty() || line.starts_with("#version"))
            continue;
        size_t blank = line.find(' ');
        if (blank == std::string_view::npos || blank == 0 || blank + 1 == line.size())
            return bad("merges.txt", "line " + std::to_string(rank + 1) + " is not two pieces separated by a blank");
        t.m_ranks.emplace(std::pair(std::string(line.substr(0, blank)), std::string(line.substr(blank + 1))), rank++);
    }
    return t;
}

std::vector<std::string> Tokenizer::bpe(std::string_view word) const
{
    std::vector<std::string> parts;
    for (unsigned char b : word)
        parts.push_back(utf8Encode(byteMap().toChar[b]));
    while (parts.size() > 1) {
        int best = -1;
        size_t where = 0;
        for (size_t i = 0; i + 1 < parts.size(); ++i) {
            auto it = m_ranks.find({parts[i], parts[i + 1]});
            if (it != m_ranks.end() && (best < 0 || it->second < best)) {
                best = it->second;
                where = i;
            }
        }
        if (best < 0)
            break;
        // Merge every occurrence of the best pair, left to right.
        std::string a = parts[where], b = parts[where + 1];
        std::vector<std::string> merged;
        for (size_t i = 0; i < parts.size(); ++i)
            if (i + 1 < parts.size() && parts[i] == a && parts[i + 1] == b) {
                merged.push_back(a + b);
                ++i;
            } else
                merged.push_back(parts[i]);
        parts = std::move(merged);
    }
    return parts;
}

std::vector<int> Tokenizer::encode(std::string_view text) const
{
    std::vector<int> ids;
    for (const std::string& word : pieces(text))
        for (const std::string& part : bpe(word)) {
            auto it = m_ids.find(part);
            if (it != m_ids.end()) {
                ids.push_back(it->second);
                continue;
            }
            // A vocabulary without this merge result: fall back to its single bytes.
            for (size_t at = 0; at < part.size();)
                if (auto single = m_ids.find(utf8Encode(nextChar(part, at))); single != m_ids.end())
                    ids.push_back(single->second);
        }
    return ids;
}

std::string Tokenizer::decode(std::span<const int> tokens) const
{
    std::string bytes;
    for (int token : tokens) {
        if (token < 0 || token >= m_special.endOfText || size_t(token) >= m_pieces.size())
            continue;
        const std::string& piece = m_pieces[size_t(token)];
        for (size_t at = 0; at < piece.size();) {
            auto b = byteMap().toByte.find(nextChar(piece, at));
            if (b != byteMap().toByte.end())
                bytes += char(b->second);
        }
    }
    return bytes;
}

std::optional<int> Tokenizer::languageToken(std::string_view code) const
{
    for (int i = 0; i < m_special.languages; ++i)
        if (code == languageCodes[i])
            return m_special.firstLanguage + i;
    return std::nullopt;
}

std::string Tokenizer::languageCode(int token) const
{
    int i = token - m_special.firstLanguage;
    return i >= 0 && i < m_special.languages ? languageCodes[i] : "";
}

} // namespace plim::whisper
