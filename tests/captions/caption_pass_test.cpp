// One engine run under its deadline, and the router's choice and fallback, with scripted
// engines over real decoded plims.

#include "base/log.h"
#include "captions/caption_engine_router.h"
#include "captions/transcription_pass.h"
#include "captions/speech_plims.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace plim {
namespace {

using Clock = std::chrono::steady_clock;

std::shared_ptr<const std::vector<float>> someSamples()
{
    return std::make_shared<const std::vector<float>>(speechSampleRate, 0.1f);
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST(TranscriptionPass, TheFirstOfResultErrorDeadlineOrStopWins)
{
    const std::vector<SpokenWord> words = {{"hello", 0.1, 0.3}};
    auto answers = std::make_shared<ScriptedSpeechEngine>(ScriptedSpeech{.words = words, .delay = 0.05});
    std::vector<double> progress;
    auto result = TranscriptionPass::run(answers, someSamples(), 1, 5, [&](double f) { progress.push_back(f); }, {});
    ASSERT_TRUE(result);
    EXPECT_EQ(*result, words);
    EXPECT_EQ(progress, std::vector<double>{1.0});

    auto fails = std::make_shared<ScriptedSpeechEngine>(ScriptedSpeech{.error = CaptionError::failed("broken")});
    EXPECT_EQ(TranscriptionPass::run(fails, someSamples(), 1, 5, {}, {}).error(), CaptionError::failed("broken"));

    // An engine that never answers: the deadline ends the pass with timedOut(deadline).
    LogCapture log;
    auto silent = std::make_shared<ScriptedSpeechEngine>(ScriptedSpeech{.neverAnswers = true});
    auto start = Clock::now();
    auto late = TranscriptionPass::run(silent, someSamples(), 1, 0.3, {}, {});
    ASSERT_FALSE(late);
    EXPECT_EQ(late.error(), CaptionError::timedOut(0.3));
    EXPECT_GE(secondsSince(start), 0.3);
    EXPECT_LT(secondsSince(start), 3.0);
    EXPECT_TRUE(log.contains("Plim captions: transcription timed out"));

    // A slow answer after the deadline does not replace the timeout; a stop before either
    // gives cancelled, even from an engine that does not stop when told.
    auto slow = std::make_shared<ScriptedSpeechEngine>(ScriptedSpeech{.words = words, .delay = 0.5});
    EXPECT_EQ(TranscriptionPass::run(slow, someSamples(), 1, 0.1, {}, {}).error().kind, CaptionError::Kind::timedOut);
    for (bool stubborn : {false, true}) {
        auto engine = std::make_shared<ScriptedSpeechEngine>(ScriptedSpeech{.neverAnswers = true, .ignoresStop = stubborn});
        StopSource stop;
        std::jthread canceller([&stop] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            stop.request_stop();
        });
        start = Clock::now();
        auto cancelled = TranscriptionPass::run(engine, someSamples(), 1, 30, {}, stop.get_token());
        ASSERT_FALSE(cancelled);
        EXPECT_EQ(cancelled.error(), CaptionError::cancelled());
        EXPECT_LT(secondsSince(start), 4.0) << "a stubborn engine is waited for only a moment";
    }
}

class RouterTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        speech = testkit::fliteSpeech({"hello"}, 0.2, dir.path());
        ASSERT_FALSE(speech.spans.empty());
        ASSERT_TRUE(testkit::writeSpeechPlim(movie, speech.stereo, speech.duration()));
    }

    CaptionEngineRouter router(std::shared_ptr<SpeechEngine> builtIn, std::shared_ptr<SpeechEngine> whisper,
        bool better = true, bool ready = true)
    {
        CaptionEngineRouter::Parts parts;
        parts.builtIn = [builtIn]() -> std::expected<std::shared_ptr<SpeechEngine>, CaptionError> { return builtIn; };
        parts.whisper = std::move(whisper);
        parts.betterCaptions = [better] { return better; };
        parts.modelReady = [ready] { return ready; };
        parts.deadline = [](CaptionEngineKind, double) { return 0.4; };
        return CaptionEngineRouter(std::move(parts));
    }

    testkit::TempDir dir;
    fs::path movie = dir / "Talk.mov";
    testkit::SpeechTrack speech;
    std::vector<SpokenWord> builtInWords = {{"from", 0.1, 0.2}, {"sphinx", 0.35, 0.3}};
};

TEST_F(RouterTest, ChoosesWhisperOnlyWhenSwitchedOnAndReadyAndFallsBackWithANotice)
{
    auto builtIn = std::make_shared<ScriptedSpeechEngine>(ScriptedSpeech{.words = builtInWords});
    auto whisperOK = std::make_shared<ScriptedSpeechEngine>(
        ScriptedSpeech{.kind = CaptionEngineKind::whisper, .words = {{"from", 0, 0.2}, {"whisper", 0.3, 0.3}}});
    EXPECT_EQ(router(builtIn, whisperOK, true, true).choose(), CaptionEngineKind::whisper);
    EXPECT_EQ(router(builtIn, whisperOK, true, false).choose(), CaptionEngineKind::builtIn);
    EXPECT_EQ(router(builtIn, whisperOK, false, true).choose(), CaptionEngineKind::builtIn);

    auto chosen = router(builtIn, whisperOK).transcribe(movie, speech.duration(), {}, {});
    ASSERT_TRUE(chosen) << chosen.error().sentence();
    EXPECT_EQ(chosen->engine, CaptionEngineKind::whisper);
    EXPECT_EQ(chosen->track.lines.at(0).text, "from whisper");
    EXPECT_FALSE(chosen->notice);
    // The engines get the plim's sound at 16 kHz.
    EXPECT_NEAR(static_cast<double>(whisperOK->samplesSeen()), speech.duration() * speechSampleRate, 0.05 * speechSampleRate);
    EXPECT_EQ(builtIn->calls(), 0);

    // A Whisper engine that fails, one that never answers, and none at all: the built-in
    // recogniser's captions with the notice, logged, remembered as the last fallback.
    for (const auto& [whisper, reason] : std::vector<std::pair<std::shared_ptr<SpeechEngine>, std::string>>{
             {std::make_shared<ScriptedSpeechEngine>(ScriptedSpeech{
                  .kind = CaptionEngineKind::whisper, .error = CaptionError::failed("the model would not load.")}),
                 "the model would not load"},
             {std::make_shared<ScriptedSpeechEngine>(
                  ScriptedSpeech{.kind = CaptionEngineKind::whisper, .neverAnswers = true}),
                 "it took longer than 0 seconds"},
             {nullptr, "the Whisper engine is not part of this build of Plim"}}) {
        LogCapture log;
        auto r = router(builtIn, whisper);
        auto pass = r.transcribe(movie, speech.duration(), {}, {}, CaptionEngineKind::whisper);
        ASSERT_TRUE(pass) << pass.error().sentence();
        EXPECT_EQ(pass->engine, CaptionEngineKind::builtIn);
        EXPECT_EQ(pass->track.lines.at(0).text, "from sphinx");
        const std::string notice = "Better captions ran into a problem (" + reason
            + "), so these captions came from the built-in recognizer.";
        EXPECT_EQ(pass->notice, notice);
        EXPECT_EQ(r.lastFallback(), notice);
        EXPECT_TRUE(
            log.contains("Plim captions: Better captions failed, using the built-in recognizer (" + reason + ")"));
    }

    // The built-in recogniser failing after a fallback shows its own error, not the notice.
    auto broken = std::make_shared<ScriptedSpeechEngine>(ScriptedSpeech{.neverAnswers = true});
    auto r = router(broken, nullptr);
    auto both = r.transcribe(movie, speech.duration(), {}, {}, CaptionEngineKind::whisper);
    ASSERT_FALSE(both);
    EXPECT_EQ(both.error(), CaptionError::timedOut(0.4));
    EXPECT_FALSE(r.lastFallback());
}

TEST_F(RouterTest, SoundlessPlimsCancelledPassesAndBrokenSoundWriteNothing)
{
    auto builtIn = std::make_shared<ScriptedSpeechEngine>(ScriptedSpeech{.words = builtInWords, .delay = 5});
    const fs::path silent = dir / "Silent.mov";
    ASSERT_TRUE(testkit::writeSpeechPlim(silent, {}, 2));
    auto none = router(builtIn, nullptr, false).transcribe(silent, 2, {}, {});
    ASSERT_FALSE(none);
    EXPECT_EQ(none.error(), CaptionError::noAudio());
    EXPECT_EQ(builtIn->calls(), 0);

    // A cancelled pass leaves the previous captions byte for byte.
    const CaptionTrack previous{{{"previous words", 0, 1}}};
    ASSERT_TRUE(previous.writeBeside(movie));
    const std::string before = testkit::readText(CaptionTrack::fileBeside(movie));
    StopSource stop;
    std::jthread canceller([&stop] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        stop.request_stop();
    });
    CaptionEngineRouter::Parts parts;
    parts.builtIn = [builtIn]() -> std::expected<std::shared_ptr<SpeechEngine>, CaptionError> { return builtIn; };
    auto cancelled = CaptionEngineRouter(parts).transcribe(movie, speech.duration(), {}, stop.get_token());
    ASSERT_FALSE(cancelled);
    EXPECT_EQ(cancelled.error(), CaptionError::cancelled());
    EXPECT_EQ(testkit::readText(CaptionTrack::fileBeside(movie)), before);

    // A movie cut short: the sound that was there is not passed off as the whole.
    testkit::writeText(dir / "Cut.mov", testkit::readText(movie).substr(0, 600));
    auto cut = router(builtIn, nullptr, false).transcribe(dir / "Cut.mov", speech.duration(), {}, {});
    ASSERT_FALSE(cut);
    EXPECT_EQ(cut.error().kind, CaptionError::Kind::failed);
    EXPECT_NE(cut.error().sentence().find("Nothing was written"), std::string::npos) << cut.error().sentence();
}

} // namespace
} // namespace plim
