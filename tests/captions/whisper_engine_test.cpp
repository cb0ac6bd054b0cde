// The Whisper engine against a small random-weight model built and run by torch
// (whisper_reference.py): the same checkpoint, the same signal, the same answers.

#include "base/text.h"
#include "captions/whisper/alignment.h"
#include "captions/whisper/checkpoint.h"
#include "captions/whisper/decoding.h"
#include "captions/whisper/log_mel.h"
#include "captions/whisper/model.h"
#include "captions/whisper/tokenizer.h"
#include "captions/whisper/transcription.h"
#include "captions/caption_engine_router.h"
#include "captions/whisper_transcriber.h"
#include "speech_plims.h"
#include "testkit/testkit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <fstream>

namespace plim::whisper {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;

// How far Plim may stray from torch: both compute in float32 with different summation
// orders (and the front end with a plain transform instead of an FFT).
// Measured: 7e-5, 1.2e-6 and 9e-6.
constexpr float melTolerance = 5e-4f;     // log-mel units after (x + 4) / 4; values span about 2
constexpr float stateTolerance = 1e-4f;   // layer-normed encoder states
constexpr float logitTolerance = 1e-4f;   // logits spread over about +-10

class WhisperReference : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_dir = std::make_unique<testkit::TempDir>();
        fs::path script = fs::path(PLIM_SOURCE_DIR) / "tests/captions/whisper_reference.py";
        auto run = testkit::runCommand({"/usr/bin/python3", script.string(), s_dir->path().string()});
        s_made = run.status == 0;
        s_log = run.out + run.err;
        if (s_made)
            s_reference = nlohmann::json::parse(testkit::readText(s_dir->path() / "reference.json"));
    }
    static void TearDownTestSuite() { s_dir.reset(); }
    void SetUp() override { ASSERT_TRUE(s_made) << "the reference model could not be built:\n" << s_log; }

    static fs::path file(const std::string& name) { return s_dir->path() / name; }
    static std::vector<float> floats(const std::string& name)
    {
        std::ifstream in(file(name), std::ios::binary);
        std::vector<float> v(fs::file_size(file(name)) / 4);
        in.read(reinterpret_cast<char*>(v.data()), std::streamsize(v.size() * 4));
        return v;
    }
    static Model model() { return PLIM_MUST(Model::create(PLIM_MUST(readCheckpoint(file("model.pt"))))); }
    static Tokenizer tokenizer(const Model& m)
    {
        return PLIM_MUST(Tokenizer::load(file("vocab.json"), file("merges.txt"), m.dims().vocab));
    }
    // The largest difference, and where it is.
    static std::pair<float, size_t> worst(std::span<const float> a, std::span<const float> b)
    {
        std::pair<float, size_t> w{0.f, 0};
        EXPECT_EQ(a.size(), b.size());
        for (size_t i = 0; i < std::min(a.size(), b.size()); ++i)
            if (!(std::fabs(a[i] - b[i]) <= w.first))
                w = {std::isnan(a[i] - b[i]) ? INFINITY : std::fabs(a[i] - b[i]), i};
        return w;
    }

    static inline std::unique_ptr<testkit::TempDir> s_dir;
    static inline bool s_made = false;
    static inline std::string s_log;
    static inline nlohmann::json s_reference;
};

TEST_F(WhisperReference, CheckpointReadsRefusesForeignCodeAndLeavesDamagedFilesAlone)
{
    auto checkpoint = readCheckpoint(file("model.pt"));
    ASSERT_TRUE(checkpoint) << checkpoint.error().sentence;
    EXPECT_EQ(checkpoint->dims.at("n_vocab"), s_reference["dims"]["n_vocab"].get<int64_t>());
    EXPECT_EQ(checkpoint->weights.at("encoder.conv1.weight").shape, (std::vector<int64_t>{64, 80, 3}));
    EXPECT_FALSE(checkpoint->weights.contains("decoder.mask"));

    std::string trap = testkit::readText(file("trap.pt"));
    auto refused = readCheckpoint(file("trap.pt"));
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().kind, Error::Kind::refused);
    EXPECT_THAT(refused.error().sentence, AllOf(HasSubstr("posix.system"), HasSubstr("left as it is")));
    EXPECT_FALSE(fs::exists(file("trap-sprung")));
    EXPECT_EQ(testkit::readText(file("trap.pt")), trap);

    // Cut short, or not a checkpoint at all: a sentence, and the bytes as they were.
    std::string whole = testkit::readText(file("model.pt"));
    for (std::string bytes : {whole.substr(0, whole.size() / 2), whole.substr(0, whole.size() - 30),
             std::string("not a model at all")}) {
        testkit::writeText(file("damaged.pt"), bytes);
        auto damaged = readCheckpoint(file("damaged.pt"));
        ASSERT_FALSE(damaged);
        EXPECT_EQ(damaged.error().kind, Error::Kind::corrupt);
        EXPECT_THAT(damaged.error().sentence, HasSubstr("damaged.pt could not be used"));
        EXPECT_EQ(testkit::readText(file("damaged.pt")), bytes);
    }

    // Half precision, including subnormals and infinity.
    EXPECT_EQ(halfToFloat(0x3C00), 1.f);
    EXPECT_EQ(halfToFloat(0xC000), -2.f);
    EXPECT_EQ(halfToFloat(0x0001), std::ldexp(1.f, -24));
    EXPECT_EQ(halfToFloat(0x7C00), INFINITY);
}

TEST_F(WhisperReference, FrontEndAndEncoderMatchTorch)
{
    auto filters = melFilters(80);
    auto [fWorst, fAt] = worst(filters, floats("filters.f32"));
    EXPECT_LT(fWorst, 1e-6f) << "filter weight " << fAt;

    auto signal = floats("signal.f32");
    Matrix mel = logMel(signal, 80);
    int content = int(signal.size() / hopLength);
    ASSERT_EQ(mel.cols, content + 3000);
    auto want = floats("mel.f32"); // the first window, padded with zeros past the sound
    std::vector<float> got(want.size(), 0.f);
    for (int r = 0; r < 80; ++r)
        std::copy_n(mel.row(r), content, got.begin() + r * 3000);
    auto [mWorst, mAt] = worst(got, want);
    EXPECT_LT(mWorst, melTolerance) << "mel " << mAt / 3000 << " frame " << mAt % 3000;

    Model m = model();
    Matrix window{80, 3000, want};
    Matrix states = m.encode(window);
    ASSERT_EQ(states.rows, 1500);
    auto [sWorst, sAt] = worst(states.data, floats("encoded.f32"));
    EXPECT_LT(sWorst, stateTolerance) << "state " << sAt;
}

TEST_F(WhisperReference, DecoderWithItsCacheAndGreedyTokensMatchTorch)
{
    Model m = model();
    Tokenizer tok = tokenizer(m);
    m.beginSequence(Matrix{1500, 64, floats("encoded.f32")});
    auto prompt = s_reference["prompt"].get<std::vector<int>>();
    auto want = floats("logits.f32");
    const int vocab = m.dims().vocab;
    // Three tokens at once, then one at a time through the key/value cache.
    Matrix first = m.decode(std::span(prompt).first(3), true);
    std::vector<float> got = first.data;
    for (size_t i = 3; i < prompt.size(); ++i) {
        Matrix next = m.decode(std::span(prompt).subspan(i, 1));
        got.insert(got.end(), next.data.begin(), next.data.end());
    }
    auto [lWorst, lAt] = worst(got, want);
    EXPECT_LT(lWorst, logitTolerance) << "position " << lAt / size_t(vocab) << " token " << lAt % size_t(vocab);

    std::atomic<bool> stop = false;
    std::vector<int> start = {tok.special().startOfTranscript, tok.special().firstLanguage, tok.special().transcribe};
    auto greedy = decodeWindow(m, tok, start, stop, {});
    ASSERT_TRUE(greedy);
    EXPECT_EQ(greedy->tokens, s_reference["greedy"].get<std::vector<int>>());
    EXPECT_NEAR(greedy->sumLogprob, s_reference["sum_logprob"].get<double>(), 1e-2);
    EXPECT_NEAR(greedy->firstLogprob, s_reference["first_logprob"].get<double>(), 1e-3);
    EXPECT_NEAR(std::log(greedy->noSpeechProb), std::log(s_reference["no_speech_prob"].get<double>()), 1e-2);

    // Sampled at temperature 1 among the five likeliest (a fallback pass): other tokens, the
    // same ones again for the same seed, and still under the rules.
    auto sampled = decodeWindow(m, tok, start, stop, {1.0, 224, 42});
    ASSERT_TRUE(sampled);
    EXPECT_NE(sampled->tokens, greedy->tokens);
    EXPECT_EQ(PLIM_MUST(decodeWindow(m, tok, start, stop, {1.0, 224, 42})).tokens, sampled->tokens);
    ASSERT_FALSE(sampled->tokens.empty());
    EXPECT_TRUE(tok.isTimestamp(sampled->tokens[0]));
    EXPECT_LE(tok.timeOf(sampled->tokens[0]), 1.0);
    int lastTime = 0, run = 0;
    for (int t : sampled->tokens) {
        EXPECT_TRUE(t < tok.special().endOfText || tok.isTimestamp(t)) << t;
        run = tok.isTimestamp(t) ? run + 1 : 0;
        EXPECT_LE(run, 2) << "three timestamps in a row";
        if (tok.isTimestamp(t)) {
            EXPECT_GE(t, lastTime);
            lastTime = t;
        }
    }

    // Continuing earlier text, put behind <|startofprev|>: other tokens, still torch's.
    auto afterText = s_reference["after_text"].get<std::vector<int>>();
    ASSERT_EQ(afterText.front(), tok.special().startOfPrev);
    auto continued = PLIM_MUST(decodeWindow(m, tok, afterText, stop, {}));
    EXPECT_EQ(continued.tokens, s_reference["after_greedy"].get<std::vector<int>>());
    EXPECT_NEAR(std::log(continued.noSpeechProb), std::log(s_reference["after_no_speech_prob"].get<double>()), 1e-2);

    stop = true;
    auto stopped = decodeWindow(m, tok, start, stop, {});
    ASSERT_FALSE(stopped);
    EXPECT_EQ(stopped.error().kind, Error::Kind::stopped);
}

TEST_F(WhisperReference, TranscriberCutsTheGreedyTokensIntoTimedSegmentsAndStopsWhenAsked)
{
    auto missing = WhisperTranscriber::load(file("nowhere"));
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().kind, Error::Kind::missing);
    EXPECT_NE(missing.error().sentence.find("model.pt"), std::string::npos) << missing.error().sentence;

    auto loaded = WhisperTranscriber::load(s_dir->path());
    ASSERT_TRUE(loaded) << loaded.error().sentence;
    WhisperTranscriber& whisper = **loaded;
    Model m = model();
    Tokenizer tok = tokenizer(m);
    auto greedy = s_reference["greedy"].get<std::vector<int>>();
    // The greedy pass is good enough to keep (no fallback), so its timestamp pairs make the segments.
    std::vector<int> text;
    for (int t : greedy)
        if (!tok.isTimestamp(t))
            text.push_back(t);
    ASSERT_LE(compressionRatio(tok.decode(text)), 2.4);
    ASSERT_GT(s_reference["sum_logprob"].get<double>() / double(greedy.size() + 1), -1.0);

    auto signal = floats("signal.f32");
    std::atomic<bool> stop = false;
    std::vector<double> progress;
    auto segments = whisper.transcribe(signal, stop, [&](double p) { progress.push_back(p); }, "en");
    ASSERT_TRUE(segments) << segments.error().sentence;
    EXPECT_EQ(whisper.language(), "en");
    ASSERT_FALSE(segments->empty());
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_EQ(progress.front(), 0);
    EXPECT_EQ(progress.back(), 1);
    size_t pair = 1;
    while (pair < greedy.size() && !(tok.isTimestamp(greedy[pair]) && tok.isTimestamp(greedy[pair - 1])))
        ++pair;
    ASSERT_LT(pair, greedy.size());
    const WhisperSegment& first = segments->front();
    EXPECT_EQ(first.start, tok.timeOf(greedy[0]));
    EXPECT_NEAR(first.end, tok.timeOf(greedy[pair - 1]), 1e-9);
    EXPECT_EQ(first.text, tok.decode(std::vector<int>(greedy.begin() + 1, greedy.begin() + long(pair) - 1)));
    double last = 0;
    for (const WhisperSegment& s : *segments) {
        EXPECT_GE(s.start, last);
        EXPECT_LT(s.start, s.end);
        last = s.end;
        ASSERT_TRUE(s.words && !s.words->empty());
        // The pieces follow each other through the segment, each starting where torch's
        // alignment starts one of the segment's tokens (when torch aligned this segment).
        std::vector<double> tokenStarts;
        for (auto& a : s_reference["alignment"])
            if (a["frames"][0].get<int>() == std::lround(s.start / 0.02) && a["frames"][1].get<int>() == std::lround(s.end / 0.02))
                for (int f : a["starts"])
                    tokenStarts.push_back(s.start + f * 0.02);
        std::string joined;
        double wordEnd = s.start;
        for (const WhisperWord& w : *s.words) {
            EXPECT_NEAR(w.start, wordEnd, 1e-9);
            EXPECT_LE(w.start, w.end);
            if (!tokenStarts.empty()) {
                EXPECT_TRUE(std::ranges::any_of(tokenStarts, [&](double t) { return std::fabs(t - w.start) < 1e-6; }))
                    << w.text << " at " << w.start;
            }
            wordEnd = w.end;
            joined += w.text;
        }
        EXPECT_NEAR(wordEnd, s.end, 1e-9);
        EXPECT_EQ(joined, s.text);
        EXPECT_TRUE(isValidUtf8(s.text)) << s.text; // the random model stops inside characters
    }

    // Three times the sound is two windows at least; a stop raised after the first ends the pass.
    std::vector<float> longer;
    for (int i = 0; i < 3; ++i)
        longer.insert(longer.end(), signal.begin(), signal.end());
    int windows = 0;
    auto stopped = whisper.transcribe(longer, stop, [&](double p) {
        if (p > 0) {
            ++windows;
            stop = true;
        }
    });
    ASSERT_FALSE(stopped);
    EXPECT_EQ(stopped.error().kind, Error::Kind::stopped);
    EXPECT_EQ(windows, 1);

    // No sound, and sound with holes in it (NaN, infinities) read as silence there.
    stop = false;
    auto none = whisper.transcribe({}, stop, {}, "en");
    ASSERT_TRUE(none);
    EXPECT_TRUE(none->empty());
    std::vector<float> holes(signal.begin(), signal.begin() + 16000);
    holes[100] = NAN;
    holes[200] = INFINITY;
    auto holed = whisper.transcribe(holes, stop, {}, "en");
    ASSERT_TRUE(holed) << holed.error().sentence;
    for (const WhisperSegment& s : *holed)
        EXPECT_TRUE(std::isfinite(s.start) && std::isfinite(s.end)) << s.text;

    auto unknown = whisper.transcribe(signal, stop, {}, "xx");
    ASSERT_FALSE(unknown);
    EXPECT_NE(unknown.error().sentence.find("\u201cxx\u201d"), std::string::npos) << unknown.error().sentence;
}

// Text sampled hot is not carried into the next window's prompt; text from a window that
// settled at a cooler temperature is. The stand-in decoder judges the first window poor below
// 0.6 and the second below 0.4, whatever the model said.
TEST_F(WhisperReference, AWindowThatNeededAHotPassLeavesTheNextPromptWithoutEarlierText)
{
    Model m = model();
    Tokenizer tok = tokenizer(m);
    const SpecialTokens& s = tok.special();
    std::vector<std::vector<int>> prompts, kept; // per window: its prompt, and the tokens of its last pass
    std::vector<double> hottest;
    WindowDecoder decode = [&](Model& model, const Tokenizer& t, std::span<const int> prompt,
                               const std::atomic<bool>& stop, const DecodeOptions& options) -> Result<DecodeResult> {
        if (options.temperature == 0) {
            prompts.emplace_back(prompt.begin(), prompt.end());
            hottest.push_back(0);
            kept.emplace_back();
        }
        DecodeResult r = PLIM_TRY(decodeWindow(model, t, prompt, stop, options));
        const double good = prompts.size() == 1 ? 0.6 : prompts.size() == 2 ? 0.4 : 0;
        r.avgLogprob = r.firstLogprob = options.temperature + 1e-9 < good ? -3 : -0.1;
        r.compressionRatio = 1;
        r.noSpeechProb = 0;
        hottest.back() = options.temperature;
        kept.back() = r.tokens;
        return r;
    };
    auto signal = floats("signal.f32");
    std::vector<float> sound;
    for (int i = 0; i < 8; ++i) // 96 s: three windows at least
        sound.insert(sound.end(), signal.begin(), signal.end());
    std::atomic<bool> stop = false;
    std::optional<int> language = tok.languageToken("en");
    ASSERT_TRUE(transcribeWindows(m, tok, sound, stop, {}, language, decode));

    ASSERT_GE(prompts.size(), 3u);
    EXPECT_EQ(hottest[0], 0.6);
    EXPECT_EQ(hottest[1], 0.4);
    EXPECT_EQ(prompts[0].front(), s.startOfTranscript);
    EXPECT_EQ(prompts[1].front(), s.startOfTranscript) << "the hot first window's text was kept";
    // The third window continues the second's text alone.
    ASSERT_EQ(prompts[2].front(), s.startOfPrev);
    auto start = std::ranges::find(prompts[2], s.startOfTranscript);
    std::vector<int> earlier(prompts[2].begin() + 1, start);
    ASSERT_FALSE(earlier.empty());
    EXPECT_FALSE(std::ranges::search(kept[1], earlier).empty());
}

TEST_F(WhisperReference, CrossAttentionAndTheTokensItPlacesMatchTorch)
{
    Model m = model();
    m.beginSequence(Matrix{1500, 64, floats("encoded.f32")});
    std::vector<int> fed = s_reference["prompt"].get<std::vector<int>>();
    fed.resize(3); // <|startoftranscript|>, the language, <|transcribe|>
    for (int t : s_reference["greedy"].get<std::vector<int>>())
        fed.push_back(t);
    std::vector<Matrix> heads;
    m.decode(fed, false, [&](const Matrix& w) { heads.push_back(w); });
    auto want = floats("cross.f32"); // heads x tokens x frames
    ASSERT_EQ(want.size(), heads.size() * fed.size() * 1500);
    for (size_t h = 0; h < heads.size(); ++h) {
        auto [hWorst, hAt] = worst(heads[h].data, std::span(want).subspan(h * heads[h].data.size(), heads[h].data.size()));
        EXPECT_LT(hWorst, 2e-6f) << "head " << h << " token " << hAt / 1500 << " frame " << hAt % 1500;
    }
    // Each stretch torch aligned (the greedy segments, and a long one over the whole sound):
    // the same start frames for its tokens.
    ASSERT_GE(s_reference["alignment"].size(), 2u);
    for (auto& a : s_reference["alignment"]) {
        TokenSpan span{a["rows"][0].get<int>(), a["rows"][1].get<int>(), a["frames"][0].get<int>(),
            a["frames"][1].get<int>()};
        Matrix scores;
        for (const Matrix& h : heads)
            addHeadScores(scores, h, span);
        EXPECT_EQ(tokenStartFrames(scores), a["starts"].get<std::vector<int>>()) << a.dump();
    }
}

// Alignment on made-up weights, where the answer is known.
TEST(WhisperAlignment, PathFollowsTheCheapCellsAndTokensStartWhereTheirFramesAre)
{
    const std::vector<std::pair<int, int>> path = {{0, 0}, {0, 1}, {0, 2}, {1, 3}, {2, 3}, {2, 4}, {2, 5}, {2, 6},
        {3, 7}, {3, 8}, {3, 9}};
    Matrix cost{4, 10, std::vector<float>(40, 1.f)};
    for (auto [r, c] : path)
        cost.row(r)[c] = -0.5f;
    EXPECT_EQ(warpPath(cost), path);
    EXPECT_TRUE(warpPath(Matrix{}).empty());
    auto lost = warpPath(Matrix{3, 4, std::vector<float>(12, NAN)}); // weights of a broken sound
    ASSERT_FALSE(lost.empty());
    EXPECT_EQ(lost.front(), std::make_pair(0, 0));
    EXPECT_EQ(lost.back(), std::make_pair(2, 3));

    // Four tokens (rows 2 to 5 of the decoder's input) speaking over frames 10 + 25 i
    // onwards, seen by two heads on different scales, with one-frame spikes the median
    // filter removes; the span starts at frame 10.
    std::vector<Matrix> heads(2, Matrix{8, 200, std::vector<float>(8 * 200, 0.f)});
    for (int h = 0; h < 2; ++h) {
        for (int t = 0; t < 4; ++t)
            for (int f = 10 + 25 * t; f < 35 + 25 * t; ++f)
                heads[size_t(h)].row(2 + t)[f] = h ? 0.9f : 0.01f;
        heads[size_t(h)].row(2 + 3)[30 + 7 * h] = h ? 5.f : 0.05f;
        heads[size_t(h)].row(2)[90] = h ? 5.f : 0.05f;
    }
    TokenSpan span{2, 6, 10, 110};
    Matrix scores;
    for (const Matrix& h : heads)
        addHeadScores(scores, h, span);
    EXPECT_EQ(tokenStartFrames(scores), (std::vector<int>{0, 25, 50, 75, 100}));
    // More tokens than frames: still rising, ending at the frame count.
    span = {0, 8, 60, 63};
    scores = {};
    addHeadScores(scores, heads[1], span);
    auto crowded = tokenStartFrames(scores);
    EXPECT_TRUE(std::is_sorted(crowded.begin(), crowded.end()));
    EXPECT_EQ(crowded.front(), 0);
    EXPECT_EQ(crowded.back(), 3);
}

// The router runs the engine from a model folder when better captions are on, and falls
// back to the built-in recognizer, saying why, when the folder's model will not load.
TEST_F(WhisperReference, TheRouterCaptionsWithTheModelFolderAndFallsBackWhenItIsBroken)
{
    testkit::TempDir dir;
    std::vector<float> stereo(2 * 48000 * 3);
    for (size_t f = 0; f < stereo.size() / 2; ++f)
        stereo[2 * f] = stereo[2 * f + 1] = 0.3f * std::sin(2 * M_PI * 220.0 * double(f) / 48000.0);
    const fs::path movie = dir / "Tone.mov";
    ASSERT_TRUE(testkit::writeSpeechPlim(movie, stereo, 3.0));

    auto route = [&](fs::path folder) {
        CaptionEngineRouter::Parts parts = builtInRouterParts("en", [folder] { return std::optional(folder); });
        parts.betterCaptions = [] { return true; };
        parts.deadline = [](CaptionEngineKind, double) { return 600.0; };
        return CaptionEngineRouter(std::move(parts));
    };
    auto router = route(s_dir->path());
    EXPECT_EQ(router.choose(), CaptionEngineKind::whisper);
    auto pass = router.transcribe(movie, 3.0, {}, {});
    ASSERT_TRUE(pass) << pass.error().sentence();
    EXPECT_EQ(pass->engine, CaptionEngineKind::whisper);
    EXPECT_FALSE(pass->notice);

    const fs::path broken = dir / "broken";
    fs::create_directories(broken);
    for (const char* name : {"vocab.json", "merges.txt"})
        fs::copy_file(file(name), broken / name);
    testkit::writeText(broken / "model.pt", "not a checkpoint");
    auto fallback = route(broken).transcribe(movie, 3.0, {}, {});
    ASSERT_TRUE(fallback) << fallback.error().sentence();
    EXPECT_EQ(fallback->engine, CaptionEngineKind::builtIn);
    ASSERT_TRUE(fallback->notice);
    EXPECT_NE(fallback->notice->find("model.pt"), std::string::npos) << *fallback->notice;
}

} // namespace
} // namespace plim::whisper
