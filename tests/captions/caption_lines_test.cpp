// The line builder, joining, Whisper's word mapping, and the words of caption errors.

#include "captions/caption_engine_router.h"
#include "captions/caption_lines.h"

#include <gtest/gtest.h>

#include <limits>

namespace plim {
namespace {

std::vector<SpokenWord> evenly(int count, double step = 0.3)
{
    std::vector<SpokenWord> words;
    for (int i = 0; i < count; ++i)
        words.push_back({"w" + std::to_string(i), i * step, 0.25});
    return words;
}

TEST(CaptionLines, LinesCloseAtSevenWordsAndAtPausesLongerThanTheGap)
{
    // Eight words without pauses: seven, then one; each line spans its words.
    auto lines = captionLines(evenly(8));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "w0 w1 w2 w3 w4 w5 w6");
    EXPECT_DOUBLE_EQ(lines[0].start, 0);
    EXPECT_DOUBLE_EQ(lines[0].end, 6 * 0.3 + 0.25);
    EXPECT_EQ(lines[1].text, "w7");
    EXPECT_DOUBLE_EQ(lines[1].start, 7 * 0.3);

    // A pause of exactly 0.9 s keeps one line (written as decimals that do not subtract
    // exactly); 0.91 s breaks it.
    EXPECT_EQ(captionLines({{"a", 0.5, 0.7}, {"b", 2.1, 0.3}}).size(), 1u);
    auto broken = captionLines({{"a", 0.5, 0.7}, {"b", 2.11, 0.3}});
    ASSERT_EQ(broken.size(), 2u);
    EXPECT_DOUBLE_EQ(broken[0].end, 1.2);
    EXPECT_DOUBLE_EQ(broken[1].start, 2.11);

    // Blank words are skipped and words are trimmed; nothing gives no line.
    auto trimmedLine = captionLines({{" hello ", 0, 0.2}, {"  ", 0.3, 0.1}, {"there", 0.5, 0.2}});
    ASSERT_EQ(trimmedLine.size(), 1u);
    EXPECT_EQ(trimmedLine[0].text, "hello there");
    EXPECT_TRUE(captionLines({}).empty());
    EXPECT_TRUE(captionLines({{" ", 0, 1}}).empty());
}

TEST(CaptionLines, UnspacedScriptsJoinWithoutBlanks)
{
    EXPECT_EQ(joinWords({"今日", "は", "晴れ"}), "今日は晴れ");
    EXPECT_EQ(joinWords({"Plim", "を", "使う"}), "Plimを使う");
    EXPECT_EQ(joinWords({"使う", "Plim", "now"}), "使うPlim now");
    EXPECT_EQ(joinWords({"สวัสดี", "ครับ"}), "สวัสดีครับ");
    EXPECT_EQ(joinWords({"plain", "words"}), "plain words");
    // The range edges, and their neighbours outside.
    for (char32_t c : {0x0E00, 0x0E7F, 0x1000, 0x109F, 0x1780, 0x17FF, 0x3000, 0x30FF, 0x3400, 0x4DBF, 0x4E00, 0x9FFF,
             0xF900, 0xFAFF, 0xFF00, 0xFFEF, 0x20000, 0x2FFFF})
        EXPECT_TRUE(isUnspacedScript(c)) << std::hex << static_cast<uint32_t>(c);
    for (char32_t c : {0x0DFF, 0x0E80, 0x10A0, 0x2FFF, 0x3100, 0x4DC0, 0xFB00, 0xFFF0, 0x1FFFF, 0x30000, 0x61})
        EXPECT_FALSE(isUnspacedScript(c)) << std::hex << static_cast<uint32_t>(c);
}

TEST(CaptionLines, WhisperSegmentsBecomeWords)
{
    using W = WhisperWord;
    // Pieces without a leading blank glue on; control tokens go; the end is the later one.
    auto glued = WhisperWordMapper::segments(
        {{" record ing", 0, 2, std::vector<W>{{"<|en|> record", 0.0, 0.6}, {"ing", 0.5, 0.9}, {" now", 1.0, 1.4}}}}, 10);
    ASSERT_EQ(glued.size(), 2u);
    EXPECT_EQ(glued[0], (SpokenWord{"recording", 0.0, 0.9}));
    EXPECT_EQ(glued[1].text, "now");
    EXPECT_NEAR(glued[1].duration, 0.4, 1e-12);

    // Japanese pieces stay words of their own.
    auto japanese = WhisperWordMapper::segments({{"", 0, 2, std::vector<W>{{"今日", 0, 0.5}, {"は", 0.5, 0.7}}}}, 10);
    ASSERT_EQ(japanese.size(), 2u);
    EXPECT_EQ(captionLines(japanese)[0].text, "今日は");

    // No word timings: three words spread over 0...3 s, a second each.
    auto spread = WhisperWordMapper::segments({{"<|en|> one two  three<|notimestamps|>", 0, 3, std::nullopt}}, 10);
    ASSERT_EQ(spread.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_DOUBLE_EQ(spread[static_cast<size_t>(i)].start, i);
        EXPECT_DOUBLE_EQ(spread[static_cast<size_t>(i)].duration, 1);
    }
    EXPECT_EQ(WhisperWordMapper::spread(" a b", 0, 1)[1].text, " b");
    EXPECT_TRUE(WhisperWordMapper::spread("<|en|>  ", 0, 1).empty());
    EXPECT_TRUE(WhisperWordMapper::spread("a b", 2, 2).empty());

    // Times: raised to the running floor and to 0, cut at the plim's end; a word starting
    // at or past the end drops it and every word after; unusable pieces are dropped.
    const double nan = std::numeric_limits<double>::quiet_NaN();
    auto timed = WhisperWordMapper::segments({{"", 0, 9,
                                                 std::vector<W>{{" early", -0.5, 0.4}, {" overlap", 0.2, 1.0},
                                                     {" bad", nan, 1.2}, {" <|x|>", 1.2, 1.3}, {" backwards", 1.5, 1.4},
                                                     {" long", 4.0, 6.0}, {" late", 5.0, 5.5}, {" later", 4.2, 4.4}}}},
        5.0);
    ASSERT_EQ(timed.size(), 4u);
    EXPECT_EQ(timed[0], (SpokenWord{"early", 0.0, 0.4}));
    EXPECT_EQ(timed[1].start, 0.4);
    EXPECT_NEAR(timed[1].duration, 0.6, 1e-12);
    EXPECT_EQ(timed[2], (SpokenWord{"backwards", 1.5, 0.0}));
    EXPECT_EQ(timed[3], (SpokenWord{"long", 4.0, 1.0}));
    // A duration that is not finite sets no limit.
    EXPECT_EQ(WhisperWordMapper::segments({{" far", 100, 101, std::nullopt}}, nan).size(), 1u);
}

TEST(CaptionLines, ErrorsDeadlinesAndFallbackReasons)
{
    EXPECT_EQ(spelledTime(59.4), "59 seconds");
    EXPECT_EQ(spelledTime(89.4), "89 seconds");
    EXPECT_EQ(spelledTime(90), "2 minutes");
    EXPECT_EQ(spelledTime(1200), "20 minutes");
    EXPECT_DOUBLE_EQ(builtInDeadline(30), 60);
    EXPECT_DOUBLE_EQ(whisperDeadline(30), 360);
    EXPECT_DOUBLE_EQ(builtInDeadline(600), 1200);
    EXPECT_DOUBLE_EQ(whisperDeadline(600), 1500);
    EXPECT_DOUBLE_EQ(builtInDeadline(std::numeric_limits<double>::infinity()), 60);

    EXPECT_EQ(CaptionError::timedOut(1200).sentence(),
        "Transcription timed out after 20 minutes. The plim is unlocked; nothing was written, so try Generate again.");
    EXPECT_EQ(CaptionError::noAudio().sentence(),
        "This plim has no audio track, so there is nothing to transcribe. Record with the microphone or system audio "
        "on and Generate will have words to caption.");
    EXPECT_EQ(CaptionError::cancelled().sentence(), "Transcription cancelled. Nothing was written.");
    const std::string unavailable = CaptionError::unavailable().sentence();
    EXPECT_EQ(unavailable.rfind("Speech recognition is not available on this computer for the chosen language.", 0), 0u);
    EXPECT_NE(unavailable.find("pocketsphinx-en-us"), std::string::npos);

    EXPECT_EQ(CaptionEngineRouter::why(CaptionError::timedOut(360)), "it took longer than 6 minutes");
    EXPECT_EQ(CaptionEngineRouter::why(CaptionError::cancelled()), "Transcription cancelled. Nothing was written");
    EXPECT_EQ(CaptionEngineRouter::why(CaptionError::failed("the model file is damaged... ")), "the model file is damaged");
}

} // namespace
} // namespace plim
