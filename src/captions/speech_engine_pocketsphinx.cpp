// The built-in recogniser: PocketSphinx (Debian 12's 5prealpha interface) with the US
// English model of pocketsphinx-en-us. The sound is cut into utterances at its pauses, and
// at 30 s at the latest: the decoder loses its way over long stretches of silence, and one
// long utterance holds twice the memory of 30-s ones. Its own silence removal is off, so
// the segment iterator's frames (100 a second) count from the utterance's first sample.

#include "captions/speech_engine.h"

#include "base/log.h"

#include <pocketsphinx.h>
#include <sphinxbase/err.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <mutex>

namespace plim {

namespace fs = std::filesystem;

namespace {

constexpr double longestUtterance = 30;
constexpr double shortestCutUtterance = 10;
constexpr double quietWindow = 0.3;
constexpr double primingSeconds = 10;
constexpr size_t chunkSamples = speechSampleRate / 4; // stop is polled between chunks

std::string normalisedLanguage(std::string_view code)
{
    std::string out;
    for (char c : code)
        out += c == '_' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

struct ModelFiles {
    fs::path acoustic, languageModel, dictionary;
};

std::optional<ModelFiles> findModel(const fs::path& root, const std::string& language)
{
    std::vector<std::string> tags = {language};
    if (language == "en")
        tags.push_back("en-us");
    else if (language.size() == 2)
        tags.push_back(language + "-" + language);
    std::error_code ec;
    for (const std::string& tag : tags) {
        ModelFiles m{root / tag / tag, root / tag / (tag + ".lm.bin"), root / tag / ("cmudict-" + tag + ".dict")};
        if (fs::is_directory(m.acoustic, ec) && fs::is_regular_file(m.languageModel, ec)
            && fs::is_regular_file(m.dictionary, ec))
            return m;
    }
    return std::nullopt;
}

// Where each utterance ends. A stretch of at least `quietWindow` under the quiet level
// (ten times the sound's noise floor, its tenth-percentile frame, and never under -40 dB
// below its loudest frame) ends one at its middle, once the utterance holds a second of
// sound; one that finds no such stretch within 30 s ends at the quietest window 10...30 s
// after its start.
std::vector<size_t> utteranceEnds(std::span<const float> samples)
{
    const size_t frame = speechSampleRate / 100;
    const size_t frames = samples.size() / frame;
    std::vector<double> frameEnergy(frames, 0.0);
    for (size_t f = 0; f < frames; ++f)
        for (size_t i = f * frame; i < (f + 1) * frame; ++i)
            frameEnergy[f] += static_cast<double>(samples[i]) * samples[i];
    std::vector<double> sum(frames + 1, 0.0); // prefix sums
    for (size_t f = 0; f < frames; ++f)
        sum[f + 1] = sum[f] + frameEnergy[f];
    double quiet = 0;
    if (frames > 0) {
        std::vector<double> sorted = frameEnergy;
        std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(frames / 10), sorted.end());
        const double floor = sorted[frames / 10];
        const double peak = *std::max_element(frameEnergy.begin(), frameEnergy.end());
        quiet = std::max(10 * floor, 1e-4 * peak);
    }
    const auto window = static_cast<size_t>(quietWindow * 100);
    const auto shortest = static_cast<size_t>(shortestCutUtterance * 100);
    const auto longest = static_cast<size_t>(longestUtterance * 100);
    std::vector<size_t> ends;
    size_t start = 0;
    size_t quietRun = 0;
    for (size_t f = 0; f < frames; ++f) {
        quietRun = frameEnergy[f] <= quiet ? quietRun + 1 : 0;
        if (quietRun >= window && f + 1 - start >= 100 + window) {
            const size_t cut = f + 1 - window / 2;
            // Only a stretch that had sound in it is worth an utterance of its own.
            if (sum[cut] - sum[start] > quiet * static_cast<double>(cut - start)) {
                ends.push_back(cut * frame);
                start = cut;
            }
            quietRun = 0;
            continue;
        }
        if (f + 1 - start > longest) {
            size_t best = start + longest;
            double quietest = HUGE_VAL;
            for (size_t end = start + shortest; end <= start + longest; ++end) {
                const double e = sum[end] - sum[end - window];
                if (e < quietest) {
                    quietest = e;
                    best = end - window / 2;
                }
            }
            ends.push_back(best * frame);
            start = best;
            quietRun = 0;
        }
    }
    ends.push_back(samples.size());
    return ends;
}

// A dictionary word as text: alternative pronunciations ("the(2)") lose their number;
// silences, fillers and sentence marks ("<s>", "<sil>", "[NOISE]", "++UM++") give nothing.
std::string wordText(const char* word)
{
    std::string text = word ? word : "";
    if (text.empty() || text.front() == '<' || text.front() == '[' || text.front() == '+')
        return {};
    if (auto paren = text.find('('); paren != std::string::npos && paren > 0 && text.back() == ')')
        text.resize(paren);
    return text;
}

class PocketSphinxEngine final : public SpeechEngine {
public:
    explicit PocketSphinxEngine(ModelFiles model) : m_model(std::move(model)) {}
    CaptionEngineKind kind() const override { return CaptionEngineKind::builtIn; }

    SpeechWords transcribe(std::span<const float> samples, double duration, const Progress& progress,
        StopToken stop) override
    {
        static std::once_flag quiet;
        std::call_once(quiet, [] { err_set_logfp(nullptr); });
        cmd_ln_t* config = cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", m_model.acoustic.c_str(), "-lm",
            m_model.languageModel.c_str(), "-dict", m_model.dictionary.c_str(), "-logfn", "/dev/null", "-remove_silence", "no", nullptr);
        if (!config)
            return std::unexpected(CaptionError::unavailable());
        ps_decoder_t* decoder = ps_init(config);
        if (!decoder) {
            cmd_ln_free_r(config);
            logLine(LogArea::captions, "PocketSphinx would not load its model from " + m_model.acoustic.string());
            return std::unexpected(CaptionError::unavailable());
        }
        const double frameRate = cmd_ln_int32_r(config, "-frate");
        auto result = decode(decoder, frameRate, samples, duration, progress, stop);
        ps_free(decoder);
        cmd_ln_free_r(config);
        return result;
    }

private:
    // Feeds samples[from, to) as one utterance, polling `stop`; false when stopped or refused.
    static std::optional<CaptionError> feed(ps_decoder_t* decoder, std::span<const float> samples, size_t from,
        size_t to, const Progress* progress, StopToken stop)
    {
        std::vector<int16_t> pcm(chunkSamples);
        if (ps_start_utt(decoder) < 0)
            return CaptionError::failed("the built-in recognizer would not start");
        for (size_t at = from; at < to; at += chunkSamples) {
            if (stop.stop_requested()) {
                ps_end_utt(decoder);
                return CaptionError::cancelled();
            }
            const size_t n = std::min(chunkSamples, to - at);
            for (size_t i = 0; i < n; ++i)
                pcm[i] = static_cast<int16_t>(std::lrint(std::clamp(samples[at + i], -1.0f, 1.0f) * 32767.0f));
            if (ps_process_raw(decoder, pcm.data(), n, FALSE, FALSE) < 0) {
                ps_end_utt(decoder);
                return CaptionError::failed("the built-in recognizer could not take the sound");
            }
            if (progress && *progress)
                (*progress)(static_cast<double>(at + n) / static_cast<double>(samples.size()));
        }
        if (ps_end_utt(decoder) < 0)
            return CaptionError::failed("the built-in recognizer could not finish a stretch");
        return std::nullopt;
    }

    SpeechWords decode(ps_decoder_t* decoder, double frameRate, std::span<const float> samples, double duration,
        const Progress& progress, StopToken stop)
    {
        const std::vector<size_t> ends = utteranceEnds(samples);
        // The decoder's running mean normalisation only settles on speech: the first
        // stretch (its first 10 s at most) is heard once before it counts.
        const size_t primer = std::min(ends.front(), static_cast<size_t>(primingSeconds * speechSampleRate));
        if (auto error = feed(decoder, samples, 0, primer, nullptr, stop))
            return std::unexpected(std::move(*error));
        std::vector<SpokenWord> words;
        size_t start = 0;
        for (size_t end : ends) {
            if (auto error = feed(decoder, samples, start, end, &progress, stop))
                return std::unexpected(std::move(*error));
            // Frames count on across utterances: the first segment (the sentence start)
            // begins at the utterance's first sample.
            const double offset = static_cast<double>(start) / speechSampleRate;
            std::optional<int> base;
            for (ps_seg_t* seg = ps_seg_iter(decoder); seg; seg = ps_seg_next(seg)) {
                int first = 0, last = 0;
                ps_seg_frames(seg, &first, &last);
                base = base.value_or(first);
                std::string text = wordText(ps_seg_word(seg));
                if (text.empty())
                    continue;
                const double wordStart = offset + (first - *base) / frameRate;
                const double wordEnd = offset + (last + 1 - *base) / frameRate;
                if (std::isfinite(duration) && wordStart >= duration)
                    continue;
                const double end = std::isfinite(duration) ? std::min(wordEnd, duration) : wordEnd;
                words.push_back({std::move(text), wordStart, std::max(0.0, end - wordStart)});
            }
            start = end;
        }
        return words;
    }

    ModelFiles m_model;
};

} // namespace

bool isLanguageCode(std::string_view code)
{
    auto letters = [](std::string_view s, size_t lo, size_t hi) {
        return s.size() >= lo && s.size() <= hi
            && std::all_of(s.begin(), s.end(), [](char c) { return std::isalpha(static_cast<unsigned char>(c)); });
    };
    size_t cut = code.find_first_of("-_");
    if (cut == std::string_view::npos)
        return letters(code, 2, 3);
    return letters(code.substr(0, cut), 2, 3) && letters(code.substr(cut + 1), 2, 3);
}

std::expected<std::shared_ptr<SpeechEngine>, CaptionError> pocketSphinxEngine(const std::string& language,
    const fs::path& modelRoot)
{
    auto model = findModel(modelRoot, normalisedLanguage(language));
    if (!model)
        return std::unexpected(CaptionError::unavailable());
    return std::make_shared<PocketSphinxEngine>(std::move(*model));
}

} // namespace plim
