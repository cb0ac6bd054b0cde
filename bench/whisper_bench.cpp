// Times Plim's Whisper engine with random weights (speed does not depend on their values):
// OpenBLAS's rate on a 1500x512 by 512x2048 product first, then for each size the log-mel
// front end, the encoder per 30-s window against the time its products alone would take at
// that rate, and the decoder per token and per window. Last, the encoder against the product
// in processor time on one thread, a ratio that holds on a busy machine too.
//
// usage: whisper_bench [tiny|base|small|medium ...]   (default: tiny base small)

#include "captions/whisper_transcriber.h"

#include "stopwatch.h"

#include <algorithm>
#include <cblas.h>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

using namespace plim;
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

double processorMs()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) * 1e3 + double(t.tv_nsec) / 1e6;
}

// With one thread, the processor time of a product and of the encoder hardly depend on
// what else the machine runs: their ratio stays meaningful on a busy machine.
void oneThreadRatio(const std::vector<std::string>& sizes)
{
    openblas_set_num_threads(1);
    const int m = 1500, k = 512, n = 2048;
    std::vector<float> a(size_t(m) * k, 0.5f), b(size_t(k) * n, 0.25f), c(size_t(m) * n);
    double best = 1e300;
    for (int i = 0; i < 8; ++i) {
        double start = processorMs();
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m, n, k, 1.f, a.data(), k, b.data(), n, 0.f, c.data(), n);
        best = std::min(best, processorMs() - start);
    }
    double gflops = 2.0 * m * k * n / best / 1e6;
    std::printf("\nOne thread, processor time: sgemm 1500x512 by 512x2048 at %.0f GFLOP/s\n", gflops);
    for (auto& size : sizes) {
        auto speed = WhisperTranscriber::measureSpeed(size, 3);
        if (speed)
            std::printf("  %s encoder: %.0f ms of processor time, %.2fx the floor of its products at that rate\n",
                size.c_str(), speed->encoderCpuMs, speed->encoderCpuMs / (speed->encoderFlop / gflops / 1e6));
    }
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

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> sizes(argv + 1, argv + argc);
    if (sizes.empty())
        sizes = {"tiny", "base", "small"};
    std::printf("OpenBLAS threads: %d\n", openblas_get_num_threads());
    double gflops = blasGflops();
    for (auto& size : sizes) {
        auto start = Steady::now();
        auto speed = WhisperTranscriber::measureSpeed(size, 3);
        if (!speed) {
            std::printf("%s\n", speed.error().sentence.c_str());
            return 1;
        }
        double floor = speed->encoderFlop / gflops / 1e6;
        std::printf("\n%s: %.0f M parameters (%.0f MB as floats), measured in %.0f s\n", size.c_str(),
            speed->parameters / 1e6, speed->parameters * 4 / 1e6, millisecondsSince(start) / 1000);
        std::printf("  log-mel of 30 s (with its 30 s of padding): %.0f ms\n", speed->frontEndMs);
        std::printf("  encoder per 30-s window: %.0f ms; its %.1f GFLOP at %.0f GFLOP/s take %.0f ms: %.2fx the floor\n",
            speed->encoderMs, speed->encoderFlop / 1e9, gflops, floor, speed->encoderMs / floor);
        std::printf("  decoder: cross keys and values %.0f ms a window; %.2f ms a token; the decoding loop with its "
                    "rules %.2f ms a token (%d tokens)\n",
            speed->crossMs, speed->tokenMs, speed->loopTokenMs, speed->loopTokens);
        // A window of speech is about 100 words: some 120 tokens with timestamps; 224 is the limit.
        for (int tokens : {120, 224}) {
            double window = speed->frontEndMs / 2 + speed->encoderMs + speed->crossMs + tokens * speed->loopTokenMs;
            std::printf("  per 30-s window with %d tokens: %.2f s, %.1fx faster than real time\n", tokens,
                window / 1000, 30000 / window);
        }
        std::printf("  peak memory so far %.0f MB\n", bench::peakResidentMB());
    }
    oneThreadRatio(sizes);
}
