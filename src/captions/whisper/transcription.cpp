#include "captions/whisper/transcription.h"

#include "base/text.h"
#include "captions/whisper/alignment.h"
#include "captions/whisper/log_mel.h"

#include <algorithm>
#include <cmath>

namespace plim::whisper {

namespace {

// Fallback temperatures and the limits that decide a window's decoding was poor.
constexpr double temperatures[] = {0.0, 0.2, 0.4, 0.6, 0.8, 1.0};
constexpr double compressionLimit = 2.4;
constexpr double logprobLimit = -1.0;
constexpr double firstLogprobLimit = -1.5;
constexpr double noSpeechLimit = 0.6;
constexpr int sampleLength = 224;
// Earlier text is dropped from the prompt after a window that needed a temperature above this.
constexpr double promptResetTemperature = 0.5;
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

// Groups a segment's text tokens into pieces of whole characters. `times` holds each
// token's start and, last, the end of the segment; a piece runs from its first token's
// start to the start of the token after it.
std::vector<WhisperWord> wordPieces(const Tokenizer& tok, std::span<const int> text, std::span<const double> times)
{
    std::vector<WhisperWord> words;
    std::vector<int> pending;
    size_t first = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (pending.empty())
            first = i;
        pending.push_back(text[i]);
        std::string bytes = tok.decode(pending);
        // A character is at most 4 bytes: past that, or at the end, what is pending is malformed.
        if (isValidUtf8(bytes) || bytes.size() >= 4 || i + 1 == text.size()) {
            if (!bytes.empty())
                words.push_back({wellFormed(bytes), times[first], times[i + 1]});
            pending.clear();
        }
    }
    return words;
}

// One segment of a window's tokens: tokens [from, to), seconds from the window's start.
struct Cut {
    size_t from = 0, to = 0;
    double start = 0, end = 0;
};

// Each cut's word pieces, timed by aligning its text tokens with the audio frames through
// the decoder's attention over them. `prompt` is what the tokens were decoded after.
std::vector<std::vector<WhisperWord>> timedWords(Model& model, const Tokenizer& tok, const std::vector<int>& prompt,
    const std::vector<int>& tokens, const std::vector<Cut>& cuts)
{
    const int audioFrames = model.dims().audioCtx, offset = int(prompt.size());
    std::vector<TokenSpan> spans;
    for (const Cut& c : cuts) {
        TokenSpan span;
        size_t from = c.from, to = c.to;
        while (from < to && tok.isTimestamp(tokens[from]))
            ++from;
        while (to > from && tok.isTimestamp(tokens[to - 1]))
            --to;
        span.fromRow = offset + int(from);
        span.toRow = offset + int(to);
        span.fromFrame = std::clamp(int(std::lround(c.start / audioFrameSeconds)), 0, audioFrames - 1);
        span.toFrame = std::clamp(int(std::lround(c.end / audioFrameSeconds)), span.fromFrame + 1, audioFrames);
        spans.push_back(span);
    }
    std::vector<Matrix> scores(spans.size());
    std::vector<int> fed = prompt;
    fed.insert(fed.end(), tokens.begin(), tokens.end());
    model.restart();
    model.decode(fed, false, [&](const Matrix& head) {
        for (size_t i = 0; i < spans.size(); ++i)
            addHeadScores(scores[i], head, spans[i]);
    });
    std::vector<std::vector<WhisperWord>> words;
    for (size_t i = 0; i < cuts.size(); ++i) {
        const Cut& c = cuts[i];
        const TokenSpan& span = spans[i];
        std::vector<int> text;
        std::vector<double> times;
        if (span.toRow > span.fromRow) {
            std::vector<int> starts = tokenStartFrames(scores[i]);
            for (int r = span.fromRow; r < span.toRow; ++r)
                if (int t = fed[size_t(r)]; !tok.isTimestamp(t)) {
                    text.push_back(t);
                    double at = (span.fromFrame + starts[size_t(r - span.fromRow)]) * audioFrameSeconds;
                    times.push_back(std::clamp(at, c.start, c.end));
                }
        }
        times.push_back(c.end);
        words.push_back(wordPieces(tok, text, times));
    }
    return words;
}

} // namespace

Result<std::vector<WhisperSegment>> transcribeWindows(Model& model, const Tokenizer& tok, std::span<const float> samples,
    const std::atomic<bool>& stop, const std::function<void(double)>& progress, std::optional<int>& languageToken,
    const WindowDecoder& decode)
{
    const SpecialTokens& s = tok.special();
    const int windowFrames = model.windowFrames(), mels = model.dims().mels;
    if (progress)
        progress(0);
    const Matrix mel = logMel(samples, mels);
    const int contentFrames = int(samples.size() / hopLength);
    std::vector<WhisperSegment> segments;
    std::vector<int> history; // the tokens of the windows so far, for the next one's prompt
    for (int seek = 0; seek < contentFrames;) {
        if (stop.load())
            return fail("Transcription stopped.", Error::Kind::stopped);
        const int size = std::min(windowFrames, contentFrames - seek);
        const double offset = seek * frameSeconds;
        Matrix window{mels, windowFrames, std::vector<float>(size_t(mels) * size_t(windowFrames), 0.f)};
        for (int r = 0; r < mels; ++r)
            std::copy_n(mel.row(r) + seek, size, window.row(r));
        model.beginSequence(model.encode(window));

        // The earlier text, as much as half the decoder's context holds, tells the model how
        // the speech went on so far (names, spelling, punctuation).
        std::vector<int> prompt;
        if (!history.empty()) {
            size_t keep = std::min(history.size(), size_t(model.dims().textCtx / 2 - 1));
            prompt.push_back(s.startOfPrev);
            prompt.insert(prompt.end(), history.end() - long(keep), history.end());
        }
        prompt.push_back(s.startOfTranscript);
        if (tok.multilingual()) {
            if (!languageToken)
                languageToken = detectLanguage(model, tok);
            prompt.push_back(*languageToken);
            prompt.push_back(s.transcribe);
        }
        DecodeResult best;
        double temperature = 0;
        for (size_t i = 0; i < std::size(temperatures); ++i) {
            temperature = temperatures[i];
            DecodeOptions options{temperature, sampleLength, uint64_t(seek) * 7919 + i};
            best = PLIM_TRY(decode(model, tok, prompt, stop, options));
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
        std::vector<Cut> cuts;
        std::vector<size_t> pairs; // where a timestamp follows a timestamp
        for (size_t i = 1; i < tokens.size(); ++i)
            if (isTime(i) && isTime(i - 1))
                pairs.push_back(i);
        bool endsOnOne = tokens.size() >= 2 && isTime(tokens.size() - 1) && !isTime(tokens.size() - 2);
        int advance = size;
        size_t used = tokens.size();
        if (!pairs.empty()) {
            if (endsOnOne)
                pairs.push_back(tokens.size());
            size_t last = 0;
            for (size_t cut : pairs) {
                cuts.push_back({last, cut, tok.timeOf(tokens[last]), tok.timeOf(tokens[cut - 1])});
                last = cut;
            }
            // Unless the window ended in silence, start the next one where the last whole segment ended.
            if (!endsOnOne) {
                used = last;
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
            cuts.push_back({0, tokens.size(), 0, duration});
        }
        auto words = timedWords(model, tok, prompt, tokens, cuts);
        for (size_t i = 0; i < cuts.size(); ++i) {
            std::string joined;
            for (WhisperWord& w : words[i]) {
                joined += w.text;
                w.start += offset;
                w.end += offset;
            }
            if (!trimmed(joined).empty())
                segments.push_back({joined, offset + cuts[i].start, offset + cuts[i].end, std::move(words[i])});
        }
        // Text sampled hot is likely wrong; the next window is not to lean on it.
        if (temperature > promptResetTemperature)
            history.clear();
        else
            history.insert(history.end(), tokens.begin(), tokens.begin() + long(used));
        seek += advance;
        if (progress)
            progress(std::min(1.0, double(seek) / contentFrames));
    }
    if (progress)
        progress(1);
    return segments;
}

} // namespace plim::whisper
