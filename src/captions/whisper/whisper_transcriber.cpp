#include "captions/whisper_transcriber.h"

#include "base/text.h"
#include "captions/whisper/checkpoint.h"
#include "captions/whisper/decoding.h"
#include "captions/whisper/log_mel.h"
#include "captions/whisper/model.h"
#include "captions/whisper/tokenizer.h"

#include <algorithm>
#include <cmath>

namespace plim {

using namespace whisper;

namespace {

// Fallback temperatures and the limits that decide a window's decoding was poor.
constexpr double temperatures[] = {0.0, 0.2, 0.4, 0.6, 0.8, 1.0};
constexpr double compressionLimit = 2.4;
constexpr double logprobLimit = -1.0;
constexpr double firstLogprobLimit = -1.5;
constexpr double noSpeechLimit = 0.6;
constexpr int sampleLength = 224;
constexpr double frameSeconds = double(hopLength) / sampleRate;

// The bytes with each malformed sequence replaced by U+FFFD (a model may stop inside a character).
std::string wellFormed(std::string_view bytes)
{
    std::string out;
    for (size_t at = 0; at < bytes.size();) {
        size_t from = at;
        if (utf8Decode(bytes, at))
            out.append(bytes.substr(from, at - from));
        else {
            out += "\uFFFD";
            ++at;
        }
    }
    return out;
}

// Splits a segment's text tokens into pieces of whole characters, and spreads the
// segment's time over them by their length.
std::vector<WhisperWord> wordPieces(const Tokenizer& tok, const std::vector<int>& text, double start, double end)
{
    std::vector<std::string> pieces;
    std::vector<int> pending;
    for (size_t i = 0; i < text.size(); ++i) {
        pending.push_back(text[i]);
        std::string bytes = tok.decode(pending);
        // A character is at most 4 bytes: past that, or at the end, what is pending is malformed.
        if (isValidUtf8(bytes) || bytes.size() >= 4 || i + 1 == text.size()) {
            if (!bytes.empty())
                pieces.push_back(wellFormed(bytes));
            pending.clear();
        }
    }
    std::vector<WhisperWord> words;
    size_t total = 0;
    for (auto& p : pieces)
        total += p.size();
    if (!total || !(end > start))
        return words;
    size_t done = 0;
    for (auto& p : pieces) {
        double from = start + (end - start) * double(done) / double(total);
        done += p.size();
        words.push_back({p, from, start + (end - start) * double(done) / double(total)});
    }
    return words;
}

} // namespace

struct WhisperTranscriber::Parts {
    Model model;
    Tokenizer tokenizer;
    std::string language;
};

WhisperTranscriber::WhisperTranscriber(std::unique_ptr<Parts> parts) : m(std::move(parts)) {}
WhisperTranscriber::~WhisperTranscriber() = default;

std::string WhisperTranscriber::language() const
{
    return m->language;
}

Result<std::unique_ptr<WhisperTranscriber>> WhisperTranscriber::load(const std::filesystem::path& folder)
{
    auto checkpoint = readCheckpoint(folder / "model.pt");
    if (!checkpoint)
        return std::unexpected(checkpoint.error());
    auto model = Model::create(std::move(*checkpoint));
    if (!model)
        return fail("The Whisper model file " + (folder / "model.pt").string() + " could not be used: "
                + model.error().sentence + ". It was left as it is; downloading the model again replaces it.",
            Error::Kind::corrupt);
    auto tokenizer = Tokenizer::load(folder / "vocab.json", folder / "merges.txt", model->dims().vocab);
    if (!tokenizer)
        return std::unexpected(tokenizer.error());
    auto parts = std::make_unique<Parts>(Parts{std::move(*model), std::move(*tokenizer), {}});
    return std::unique_ptr<WhisperTranscriber>(new WhisperTranscriber(std::move(parts)));
}

Result<std::vector<WhisperSegment>> WhisperTranscriber::transcribe(std::span<const float> samples,
    const std::atomic<bool>& stop, const std::function<void(double)>& progress, std::optional<std::string> language)
{
    Model& model = m->model;
    const Tokenizer& tok = m->tokenizer;
    const SpecialTokens& s = tok.special();
    const int windowFrames = model.windowFrames(), mels = model.dims().mels;
    std::optional<int> languageToken;
    if (tok.multilingual() && language && !language->empty()) {
        languageToken = tok.languageToken(*language);
        if (!languageToken)
            return fail("The Whisper model does not know the language \u201c" + *language
                + "\u201d. Nothing was transcribed; choose another language or let the model find it.");
    }
    if (progress)
        progress(0);
    const Matrix mel = logMel(samples, mels);
    const int contentFrames = int(samples.size() / hopLength);
    std::vector<WhisperSegment> segments;
    m->language = tok.multilingual() ? "" : "en";
    for (int seek = 0; seek < contentFrames;) {
        if (stop.load())
            return fail("Transcription stopped.", Error::Kind::stopped);
        const int size = std::min(windowFrames, contentFrames - seek);
        const double offset = seek * frameSeconds;
        Matrix window{mels, windowFrames, std::vector<float>(size_t(mels) * size_t(windowFrames), 0.f)};
        for (int r = 0; r < mels; ++r)
            std::copy_n(mel.row(r) + seek, size, window.row(r));
        model.beginSequence(model.encode(window));

        std::vector<int> prompt = {s.startOfTranscript};
        if (tok.multilingual()) {
            if (!languageToken)
                languageToken = detectLanguage(model, tok);
            m->language = tok.languageCode(*languageToken);
            prompt.push_back(*languageToken);
            prompt.push_back(s.transcribe);
        }
        DecodeResult best;
        for (size_t i = 0; i < std::size(temperatures); ++i) {
            DecodeOptions options{temperatures[i], sampleLength, uint64_t(seek) * 7919 + i};
            best = PLIM_TRY(decodeWindow(model, tok, prompt, stop, options));
            bool poor = best.compressionRatio > compressionLimit || best.avgLogprob < logprobLimit
                || best.firstLogprob < firstLogprobLimit;
            if (!poor || best.noSpeechProb > noSpeechLimit)
                break;
        }
        if (best.noSpeechProb > noSpeechLimit && !(best.avgLogprob > logprobLimit)) {
            seek += size; // silence
            if (progress)
                progress(double(seek) / contentFrames);
            continue;
        }

        const std::vector<int>& tokens = best.tokens;
        auto isTime = [&](size_t i) { return tok.isTimestamp(tokens[i]); };
        auto addSegment = [&](size_t from, size_t to, double start, double end) {
            std::vector<int> text;
            for (size_t i = from; i < to; ++i)
                if (!isTime(i))
                    text.push_back(tokens[i]);
            auto words = wordPieces(tok, text, start, end);
            std::string joined;
            for (auto& w : words)
                joined += w.text;
            if (trimmed(joined).empty())
                return;
            segments.push_back({joined, start, end, std::move(words)});
        };
        std::vector<size_t> pairs; // where a timestamp follows a timestamp
        for (size_t i = 1; i < tokens.size(); ++i)
            if (isTime(i) && isTime(i - 1))
                pairs.push_back(i);
        bool endsOnOne = tokens.size() >= 2 && isTime(tokens.size() - 1) && !isTime(tokens.size() - 2);
        int advance = size;
        if (!pairs.empty()) {
            if (endsOnOne)
                pairs.push_back(tokens.size());
            size_t last = 0;
            for (size_t cut : pairs) {
                addSegment(last, cut, offset + tok.timeOf(tokens[last]), offset + tok.timeOf(tokens[cut - 1]));
                last = cut;
            }
            // Unless the window ended in silence, start the next one where the last whole segment ended.
            if (!endsOnOne) {
                int frames = int(std::lround(tok.timeOf(tokens[last - 1]) / frameSeconds));
                if (frames > 0)
                    advance = std::min(size, frames);
            }
        } else {
            double duration = size * frameSeconds;
            for (auto it = tokens.rbegin(); it != tokens.rend(); ++it)
                if (tok.isTimestamp(*it)) {
                    if (*it != s.firstTimestamp)
                        duration = tok.timeOf(*it);
                    break;
                }
            addSegment(0, tokens.size(), offset, offset + duration);
        }
        seek += advance;
        if (progress)
            progress(std::min(1.0, double(seek) / contentFrames));
    }
    if (progress)
        progress(1);
    return segments;
}

} // namespace plim
