// The built-in recogniser: PocketSphinx (Debian 12's 5prealpha interface) with the US
// English model of pocketsphinx-en-us. The sound is cut into utterances of at most 30 s,
// at the quietest stretch between 10 and 30 s after the utterance's start: one decoder
// over a long utterance holds twice the memory of 30-s ones, and words seldom straddle a
// quiet cut. Word times come from the segment iterator's frames (100 a second).

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

// Where each utterance ends: the middle of the quietest `quietWindow` whose end lies
// 10...30 s after the utterance's start, or the end of the sound when that is nearer than 30 s.
std::vector<size_t> utteranceEnds(std::span<const float> samples)
{
    const size_t frame = speechSampleRate / 100;
    const size_t frames = samples.size() / frame;
    std::vector<double> energy(frames + 1, 0.0); // prefix sums of each 10-ms frame's energy
    for (size_t f = 0; f < frames; ++f) {
        double e = 0;
        for (size_t i = f * frame; i < (f + 1) * frame; ++i)
            e += static_cast<double>(samples[i]) * samples[i];
        energy[f + 1] = energy[f] + e;
    }
    const auto window = static_cast<size_t>(quietWindow * 100);
    const auto shortest = static_cast<size_t>(shortestCutUtterance * 100);
    const auto longest = static_cast<size_t>(longestUtterance * 100);
    std::vector<size_t> ends;
    size_t start = 0;
    while (frames - start > longest) {
        size_t best = start + longest;
        double quietest = HUGE_VAL;
        for (size_t end = start + shortest; end <= start + longest; ++end) {
            double e = energy[end] - energy[end - window];
            if (e < quietest) {
                quietest = e;
                best = end - window / 2;
            }
        }
        ends.push_back(best * frame);
        start = best;
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
            m_model.languageModel.c_str(), "-dict", m_model.dictionary.c_str(), "-logfn", "/dev/null", nullptr);
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
    SpeechWords decode(ps_decoder_t* decoder, double frameRate, std::span<const float> samples, double duration,
        const Progress& progress, StopToken stop)
    {
        std::vector<SpokenWord> words;
        std::vector<int16_t> pcm(chunkSamples);
        size_t start = 0;
        for (size_t end : utteranceEnds(samples)) {
            if (ps_start_utt(decoder) < 0)
                return std::unexpected(CaptionError::failed("the built-in recognizer would not start"));
            for (size_t at = start; at < end; at += chunkSamples) {
                if (stop.stop_requested()) {
                    ps_end_utt(decoder);
                    return std::unexpected(CaptionError::cancelled());
                }
                const size_t n = std::min(chunkSamples, end - at);
                for (size_t i = 0; i < n; ++i)
                    pcm[i] = static_cast<int16_t>(std::lrint(std::clamp(samples[at + i], -1.0f, 1.0f) * 32767.0f));
                if (ps_process_raw(decoder, pcm.data(), n, FALSE, FALSE) < 0) {
                    ps_end_utt(decoder);
                    return std::unexpected(CaptionError::failed("the built-in recognizer could not take the sound"));
                }
                if (progress)
                    progress(static_cast<double>(at + n) / static_cast<double>(samples.size()));
            }
            if (ps_end_utt(decoder) < 0)
                return std::unexpected(CaptionError::failed("the built-in recognizer could not finish a stretch"));
            const double offset = static_cast<double>(start) / speechSampleRate;
            for (ps_seg_t* seg = ps_seg_iter(decoder); seg; seg = ps_seg_next(seg)) {
                std::string text = wordText(ps_seg_word(seg));
                if (text.empty())
                    continue;
                int first = 0, last = 0;
                ps_seg_frames(seg, &first, &last);
                const double wordStart = offset + first / frameRate;
                const double wordEnd = offset + (last + 1) / frameRate;
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
