#include "captions/whisper_transcriber.h"

#include "captions/whisper/decoding.h"
#include "captions/whisper/log_mel.h"
#include "captions/whisper/model.h"
#include "captions/whisper/tokenizer.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <random>

namespace plim {

using namespace whisper;

namespace {

double processorMs()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) * 1e3 + double(t.tv_nsec) / 1e6;
}

// The best wall time of `runs` calls, in milliseconds; `processor`, when given, gets the best processor time.
template<typename F>
double bestOf(int runs, F&& f, double* processor = nullptr)
{
    double best = 1e300, bestProcessor = 1e300;
    for (int i = 0; i < std::max(1, runs); ++i) {
        auto start = std::chrono::steady_clock::now();
        double startProcessor = processorMs();
        f();
        bestProcessor = std::min(bestProcessor, processorMs() - startProcessor);
        best = std::min(best, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    if (processor)
        *processor = bestProcessor;
    return best;
}

} // namespace

Result<WhisperTranscriber::Speed> WhisperTranscriber::measureSpeed(const std::string& size, int runs)
{
    Dims d;
    auto set = [&](int state, int heads, int layers) {
        d.audioState = d.textState = state;
        d.audioHeads = d.textHeads = heads;
        d.audioLayers = d.textLayers = layers;
    };
    if (size == "tiny")
        set(384, 6, 4);
    else if (size == "base")
        set(512, 8, 6);
    else if (size == "small")
        set(768, 12, 12);
    else if (size == "medium")
        set(1024, 16, 24);
    else
        return fail("There is no Whisper size called \u201c" + size + "\u201d; try tiny, base, small or medium.");
    Checkpoint checkpoint = randomCheckpoint(d, 3);
    Speed speed;
    for (auto& [name, t] : checkpoint.weights)
        speed.parameters += double(t.data.size());
    double s = d.audioState, ctx = d.audioCtx;
    speed.encoderFlop = 2 * (2 * ctx * d.mels * 3 * s + ctx * s * 3 * s
        + d.audioLayers * (4 * ctx * s * s + 2 * ctx * ctx * s + 8 * ctx * s * s));
    Model model = PLIM_TRY(Model::create(std::move(checkpoint)));
    Tokenizer tok = PLIM_TRY(Tokenizer::fromText(R"({"<|endoftext|>": 50257})", "", d.vocab));

    std::mt19937 random(5);
    std::normal_distribution<float> noise(0, 0.1f);
    std::vector<float> sound(static_cast<size_t>(windowSamples));
    for (float& v : sound)
        v = noise(random);
    Matrix mel;
    speed.frontEndMs = bestOf(runs, [&] { mel = logMel(sound, d.mels); });
    Matrix window{d.mels, model.windowFrames(), std::vector<float>(size_t(d.mels) * size_t(model.windowFrames()))};
    for (int r = 0; r < d.mels; ++r)
        std::copy_n(mel.row(r), model.windowFrames(), window.row(r));
    Matrix audio = model.encode(window); // the first run pays for first touches of the weights
    speed.encoderMs = bestOf(runs, [&] { audio = model.encode(window); }, &speed.encoderCpuMs);
    speed.crossMs = bestOf(runs, [&] { model.beginSequence(audio); });

    const SpecialTokens& sp = tok.special();
    std::vector<int> prompt = {sp.startOfTranscript, sp.firstLanguage, sp.transcribe};
    constexpr int tokens = 100;
    speed.tokenMs = bestOf(runs, [&] {
        model.restart();
        model.decode(prompt);
        for (int i = 0; i < tokens; ++i) {
            int t = 1000 + 37 * i;
            model.decode(std::span(&t, 1));
        }
    }) / tokens;
    std::atomic<bool> stop = false;
    DecodeResult r;
    double loop = bestOf(1, [&] { r = decodeWindow(model, tok, prompt, stop, {}).value_or(DecodeResult{}); });
    speed.loopTokens = int(r.tokens.size()) + 1;
    speed.loopTokenMs = loop / speed.loopTokens;
    return speed;
}

} // namespace plim
