// The built-in recogniser end to end: flite speaks a known text into a plim, PocketSphinx
// captions it through the router, and the words and line times are held to measured bounds.

#include "captions/caption_engine_router.h"
#include "captions/speech_plims.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <sstream>

namespace plim {
namespace {

std::vector<std::string> wordsOf(const std::string& text)
{
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string w; in >> w;) {
        std::string clean;
        for (char c : w)
            if (std::isalnum(static_cast<unsigned char>(c)) || c == '\'')
                clean += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (!clean.empty())
            words.push_back(clean);
    }
    return words;
}

// Word error rate: the edit distance between the word lists over the reference's length.
double wordErrorRate(const std::vector<std::string>& reference, const std::vector<std::string>& heard)
{
    std::vector<size_t> row(heard.size() + 1);
    for (size_t j = 0; j <= heard.size(); ++j)
        row[j] = j;
    for (size_t i = 1; i <= reference.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= heard.size(); ++j) {
            const size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (reference[i - 1] == heard[j - 1] ? 0 : 1)});
            diagonal = up;
        }
    }
    return static_cast<double>(row[heard.size()]) / static_cast<double>(reference.size());
}

TEST(PocketSphinx, CaptionsSpeechFromAKnownText)
{
    testkit::TempDir dir;
    // Sentences of at most seven words, 1.5 s apart: each should make one line of its own.
    const std::vector<std::string> sentences = {
        "Welcome to this short recording.",
        "Today we open the settings window.",
        "Click the button at the top.",
        "Then choose a folder for your files.",
        "The program saves everything for you.",
        "Thank you for watching this video.",
    };
    auto speech = testkit::fliteSpeech(sentences, 1.5, dir.path());
    ASSERT_EQ(speech.spans.size(), sentences.size()) << "flite did not speak";
    const fs::path movie = dir / "Spoken.mov";
    ASSERT_TRUE(testkit::writeSpeechPlim(movie, speech.stereo, speech.duration()));

    // Recognition is what is measured here, on a machine that may be busy: the deadline is
    // put out of reach (the deadline pass has tests of its own).
    CaptionEngineRouter::Parts parts = builtInRouterParts("en");
    parts.deadline = [](CaptionEngineKind, double) { return 600.0; };
    CaptionEngineRouter router(std::move(parts));
    double lastProgress = 0;
    auto pass = router.transcribe(movie, speech.duration(), [&](CaptionEngineKind, double f) { lastProgress = f; }, {});
    ASSERT_TRUE(pass) << pass.error().sentence();
    EXPECT_EQ(pass->engine, CaptionEngineKind::builtIn);
    EXPECT_FALSE(pass->notice);
    EXPECT_DOUBLE_EQ(lastProgress, 1.0);

    std::vector<std::string> reference, heard;
    for (const auto& s : sentences)
        for (auto& w : wordsOf(s))
            reference.push_back(w);
    for (const CaptionLine& line : pass->track.lines)
        for (auto& w : wordsOf(line.text))
            heard.push_back(w);
    // Measured here: 19 % of the 36 words wrong ("the start recording", "bench is a filter"),
    // every line within 0.08 s of its sentence's first sound and 0.06 s of its last.
    const double wer = wordErrorRate(reference, heard);
    EXPECT_LE(wer, 0.3) << "heard: " << ::testing::PrintToString(heard);
    // Each sentence is its own line (the pauses are longer than the gap), timed by its sound.
    ASSERT_EQ(pass->track.lines.size(), sentences.size());
    for (size_t i = 0; i < sentences.size(); ++i) {
        const CaptionLine& line = pass->track.lines[i];
        EXPECT_NEAR(line.start, speech.spans[i].start, 0.15) << line.text;
        EXPECT_NEAR(line.end, speech.spans[i].end, 0.15) << line.text;
    }
}

TEST(PocketSphinx, OnlyUSEnglishIsAvailable)
{
    EXPECT_TRUE(pocketSphinxEngine("en"));
    EXPECT_TRUE(pocketSphinxEngine("en_US"));
    auto german = pocketSphinxEngine("de");
    ASSERT_FALSE(german);
    EXPECT_EQ(german.error(), CaptionError::unavailable());
    testkit::TempDir empty;
    EXPECT_FALSE(pocketSphinxEngine("en", empty.path()));
    EXPECT_TRUE(isLanguageCode("pt-BR"));
    EXPECT_FALSE(isLanguageCode("english!"));
    EXPECT_FALSE(isLanguageCode("e"));
}

} // namespace
} // namespace plim
