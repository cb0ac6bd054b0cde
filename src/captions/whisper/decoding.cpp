#include "captions/whisper/decoding.h"

#include "captions/whisper/vector_math.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <random>
#include <zlib.h>

namespace plim::whisper {

namespace {

constexpr float never = -std::numeric_limits<float>::infinity();

void suppress(std::vector<float>& logits, int from, int to)
{
    std::fill(logits.begin() + std::max(0, from), logits.begin() + std::min(int(logits.size()), to), never);
}

// log(sum(exp(x))) over [from, to).
double logSumExp(const std::vector<float>& x, int from, int to)
{
    float top = *std::max_element(x.begin() + from, x.begin() + to);
    if (top == never)
        return never;
    thread_local std::vector<float> scratch;
    scratch.assign(x.begin() + from, x.begin() + to);
    return top + std::log(double(expShifted(scratch.data(), scratch.size(), top)));
}

void applyRules(std::vector<float>& logits, const Tokenizer& tok, const std::vector<int>& blank,
    const std::vector<int>& seq)
{
    const SpecialTokens& s = tok.special();
    const int vocab = int(logits.size()), tb = s.firstTimestamp;
    if (seq.empty()) {
        for (int t : blank)
            logits[size_t(t)] = never;
        logits[size_t(s.endOfText)] = never;
    }
    suppress(logits, s.startOfTranscript, s.firstTimestamp); // languages, task and control tokens
    bool last = !seq.empty() && seq.back() >= tb;
    bool penultimate = seq.size() < 2 || seq[seq.size() - 2] >= tb;
    if (last) {
        if (penultimate)
            suppress(logits, tb, vocab); // a pair just closed: text or the end comes next
        else
            suppress(logits, 0, s.endOfText); // a segment just ended: its pair's timestamp or the end
    }
    for (auto it = seq.rbegin(); it != seq.rend(); ++it)
        if (*it >= tb) {
            // Never back in time, and a segment has a length.
            suppress(logits, tb, last && !penultimate ? *it : *it + 1);
            break;
        }
    if (seq.empty()) {
        suppress(logits, 0, tb);
        suppress(logits, tb + 50 + 1, vocab); // the first timestamp within 1 s
    }
    // When time is likelier than any single text token, say the time.
    double all = logSumExp(logits, 0, vocab);
    double time = logSumExp(logits, tb, vocab) - all;
    double text = *std::max_element(logits.begin(), logits.begin() + tb) - all;
    if (time > text)
        suppress(logits, 0, tb);
}

} // namespace

double compressionRatio(const std::string& text)
{
    if (text.empty())
        return 0;
    uLongf size = compressBound(uLong(text.size()));
    std::vector<Bytef> out(size);
    if (compress(out.data(), &size, reinterpret_cast<const Bytef*>(text.data()), uLong(text.size())) != Z_OK || !size)
        return 0;
    return double(text.size()) / double(size);
}

int detectLanguage(Model& model, const Tokenizer& tok)
{
    const SpecialTokens& s = tok.special();
    model.restart();
    int start = s.startOfTranscript;
    Matrix logits = model.decode(std::span(&start, 1));
    const float* row = logits.row(0);
    return int(std::max_element(row + s.firstLanguage, row + s.firstLanguage + s.languages) - row);
}

Result<DecodeResult> decodeWindow(Model& model, const Tokenizer& tok, std::span<const int> prompt,
    const std::atomic<bool>& stop, const DecodeOptions& options)
{
    const SpecialTokens& s = tok.special();
    const std::vector<int> blank = tok.encode(" ");
    std::mt19937_64 random(options.seed);
    DecodeResult r;
    model.restart();
    Matrix logits = model.decode(prompt, true);
    {
        // The chance of silence, read where the transcript starts (after any earlier text).
        int at = int(std::find(prompt.begin(), prompt.end(), s.startOfTranscript) - prompt.begin());
        if (at == logits.rows)
            return fail("The decoder's prompt has no start of transcript.");
        std::vector<float> first(logits.row(at), logits.row(at) + logits.cols);
        r.noSpeechProb = std::exp(first[size_t(s.noSpeech)] - logSumExp(first, 0, logits.cols));
    }
    std::vector<float> row(logits.row(logits.rows - 1), logits.row(logits.rows - 1) + logits.cols);
    int length = std::min(options.sampleLength, model.dims().textCtx - int(prompt.size()));
    for (int step = 0; step < length; ++step) {
        if (stop.load())
            return fail("Transcription stopped.", Error::Kind::stopped);
        applyRules(row, tok, blank, r.tokens);
        double norm = logSumExp(row, 0, int(row.size()));
        int next;
        if (options.temperature <= 0)
            next = int(std::max_element(row.begin(), row.end()) - row.begin());
        else {
            std::vector<int> order(row.size());
            std::iota(order.begin(), order.end(), 0);
            std::partial_sort(order.begin(), order.begin() + 5, order.end(),
                [&](int a, int b) { return row[size_t(a)] > row[size_t(b)]; });
            std::vector<double> weights;
            for (int i = 0; i < 5; ++i)
                weights.push_back(row[size_t(order[size_t(i)])] == never
                        ? 0.0
                        : std::exp((row[size_t(order[size_t(i)])] - row[size_t(order[0])]) / options.temperature));
            next = order[std::discrete_distribution<size_t>(weights.begin(), weights.end())(random)];
        }
        double logprob = row[size_t(next)] - norm;
        r.sumLogprob += logprob;
        if (step == 0)
            r.firstLogprob = logprob;
        if (next == s.endOfText)
            break;
        r.tokens.push_back(next);
        if (step + 1 < length) {
            Matrix out = model.decode(std::span(&next, 1));
            row.assign(out.data.begin(), out.data.end());
        }
    }
    r.avgLogprob = r.sumLogprob / double(r.tokens.size() + 1);
    r.compressionRatio = compressionRatio(tok.decode(r.tokens));
    return r;
}

} // namespace plim::whisper
