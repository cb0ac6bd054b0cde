// Times Plim's Whisper engine with random weights (speed does not depend on their values):
// OpenBLAS's rate on a 1500x512 by 512x2048 product first, then for each size the log-mel
// front end, the encoder per 30-s window against the time its products alone would take at
// that rate, and the decoder per token and per window.
//
// usage: whisper_bench [tiny|base|small|medium ...]   (default: tiny base small)

#include "captions/whisper/decoding.h"
#include "captions/whisper/log_mel.h"
#include "captions/whisper/model.h"
#include "captions/whisper/tokenizer.h"

#include "stopwatch.h"

#include <algorithm>
#include <atomic>
#include <cblas.h>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using namespace plim;
using namespace plim::whisper;
using plim::bench::millisecondsSince;
using plim::bench::Steady;

namespace {

template<typename F>
std::vector<double> times(int runs, F&& f)
{
    std::vector<double> t;
    for (int i = 0; i < runs; ++i) {
        auto start = Steady::now();
        f();
        t.push_back(millisecondsSince(start));
    }
    std::sort(t.begin(), t.end());
    return t;
}

double blasGflops()
{
    const int m = 1500, k = 512, n = 2048;
    std::vector<float> a(size_t(m) * k, 0.5f), b(size_t(k) * n, 0.25f), c(size_t(m) * n);
    auto t = times(12, [&] {
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m, n, k, 1.f, a.data(), k, b.data(), n, 0.f,
            c.data(), n);
    });
    double best = t.front(), median = t[t.size() / 2];
    double flops = 2.0 * m * k * n;
    std::printf("OpenBLAS sgemm 1500x512 by 512x2048: best %.2f ms (%.0f GFLOP/s), median %.2f ms (%.0f GFLOP/s)\n",
        best, flops / best / 1e6, median, flops / median / 1e6);
    // The attention's products have one side only a head wide (64): BLAS runs them slower.
    const int ctx = 1500, head = 64;
    std::vector<float> q(size_t(ctx) * 512, 0.5f), scores(size_t(ctx) * ctx), out(size_t(ctx) * 512);
    auto attention = times(6, [&] {
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, ctx, ctx, head, 1.f, q.data(), 512, q.data(), 512, 0.f,
            scores.data(), ctx);
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, ctx, head, ctx, 1.f, scores.data(), ctx, q.data(), 512,
            0.f, out.data(), 512);
    });
    std::printf("OpenBLAS one head's attention products (1500x64 by 64x1500, 1500x1500 by 1500x64): best %.2f ms "
                "(%.0f GFLOP/s)\n",
        attention.front(), 4.0 * ctx * ctx * head / attention.front() / 1e6);
    return flops / best / 1e6;
}

// Multiply-adds (x2) of the encoder's products for one window.
double encoderFlops(const Dims& d)
{
    double s = d.audioState, ctx = d.audioCtx, frames = 2.0 * ctx;
    double conv = frames * d.mels * 3 * s + ctx * s * 3 * s;
    double layer = 4 * ctx * s * s + 2 * ctx * ctx * s + 2 * ctx * s * 4 * s;
    return 2 * (conv + d.audioLayers * layer);
}

Dims sizeNamed(const std::string& name)
{
    Dims d;
    auto set = [&](int state, int heads, int layers) {
        d.audioState = d.textState = state;
        d.audioHeads = d.textHeads = heads;
        d.audioLayers = d.textLayers = layers;
    };
    if (name == "tiny")
        set(384, 6, 4);
    else if (name == "base")
        set(512, 8, 6);
    else if (name == "small")
        set(768, 12, 12);
    else if (name == "medium")
        set(1024, 16, 24);
    return d;
}

void measure(const std::string& name, double gflops)
{
    Dims d = sizeNamed(name);
    auto start = Steady::now();
    Model model = PLIM_MUST(Model::create(randomCheckpoint(d, 3)));
    Tokenizer tok = PLIM_MUST(Tokenizer::fromText(R"({"<|endoftext|>": 50257})", "", d.vocab));
    double params = 0;
    params += double(d.vocab) * d.textState + double(d.textCtx) * d.textState;
    params += d.audioLayers * 12.0 * d.audioState * d.audioState + d.textLayers * 16.0 * d.textState * d.textState;
    std::printf("\n%s: %d layers of %d, about %.0f M parameters (%.0f MB as floats), made in %.1f s\n", name.c_str(),
        d.audioLayers, d.audioState, params / 1e6, params * 4 / 1e6, millisecondsSince(start) / 1000);

    std::mt19937 random(5);
    std::normal_distribution<float> noise(0, 0.1f);
    std::vector<float> sound(static_cast<size_t>(windowSamples));
    for (float& v : sound)
        v = noise(random);
    Matrix mel;
    auto melTimes = times(3, [&] { mel = logMel(sound, d.mels); });
    std::printf("  log-mel of 30 s (and its 30 s of padding): %.1f ms\n", melTimes.front());
    Matrix window{d.mels, 3000, std::vector<float>(mel.data.begin(), mel.data.begin() + long(d.mels) * 3000)};
    for (int r = 0; r < d.mels; ++r)
        std::copy_n(mel.row(r), 3000, window.row(r));

    Matrix audio = model.encode(window); // warm-up
    auto enc = times(3, [&] { audio = model.encode(window); });
    double floor = encoderFlops(d) / gflops / 1e6;
    std::printf("  encoder per 30-s window: best %.0f ms, median %.0f ms; its %.1f GFLOP at %.0f GFLOP/s take %.0f ms: "
                "%.2fx the floor\n",
        enc.front(), enc[1], encoderFlops(d) / 1e9, gflops, floor, enc.front() / floor);

    auto cross = times(3, [&] { model.beginSequence(audio); });
    std::vector<int> prompt = {tok.special().startOfTranscript, tok.special().firstLanguage, tok.special().transcribe};
    model.decode(prompt);
    const int tokens = 100;
    auto startTokens = Steady::now();
    for (int i = 0; i < tokens; ++i) {
        int t = 1000 + 37 * i;
        model.decode(std::span(&t, 1));
    }
    double perToken = millisecondsSince(startTokens) / tokens;
    double logitsBytes = double(d.vocab) * d.textState * 4;
    std::printf("  decoder: cross keys and values %.0f ms a window; %.2f ms a token (the logits product alone reads "
                "%.0f MB)\n",
        cross.front(), perToken, logitsBytes / 1e6);

    // The real decoding loop with its rules: random weights run it to the 224-token limit or an early end.
    std::atomic<bool> stop = false;
    DecodeResult r;
    auto loop = times(1, [&] { r = PLIM_MUST(decodeWindow(model, tok, prompt, stop, {})); });
    double loopPerToken = loop.front() / double(r.tokens.size() + 1);
    std::printf("  decoding loop with its rules: %zu tokens in %.0f ms, %.2f ms a token\n", r.tokens.size() + 1,
        loop.front(), loopPerToken);

    // A window of speech is about 100 words: some 120 tokens with timestamps.
    const int typical = 120, most = 224;
    double window120 = melTimes.front() / 2 + enc.front() + cross.front() + typical * loopPerToken;
    double window224 = melTimes.front() / 2 + enc.front() + cross.front() + most * loopPerToken;
    std::printf("  per 30-s window: %.2f s with %d tokens (%.1fx faster than real time), %.2f s with %d tokens "
                "(%.1fx)\n",
        window120 / 1000, typical, 30000 / window120, window224 / 1000, most, 30000 / window224);
    std::printf("  peak memory so far %.0f MB\n", bench::peakResidentMB());
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> sizes;
    for (int i = 1; i < argc; ++i)
        sizes.push_back(argv[i]);
    if (sizes.empty())
        sizes = {"tiny", "base", "small"};
    std::printf("OpenBLAS threads: %d\n", openblas_get_num_threads());
    double gflops = blasGflops();
    for (auto& s : sizes)
        measure(s, gflops);
}
