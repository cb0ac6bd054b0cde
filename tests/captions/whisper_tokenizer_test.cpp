// Whisper's tokenizer on a made-up vocabulary, and its special tokens placed for the
// published vocabulary sizes.

#include "captions/whisper/tokenizer.h"

#include <gtest/gtest.h>

namespace plim::whisper {
namespace {

// Byte symbols: "Ġ" is the blank, "Ã" and "©" the two bytes of "é".
constexpr const char* vocab = R"({"h": 0, "e": 1, "l": 2, "o": 3, "Ġ": 4, "w": 5, "r": 6, "d": 7, "'": 8, "s": 9,
    "t": 10, "Ã": 11, "©": 12, "he": 13, "ll": 14, "hell": 15, "hello": 16, "Ġw": 17, "or": 18, "Ġwor": 19,
    "Ġworl": 20, "Ġworld": 21, "Ã©": 22, "'s": 23, "<|endoftext|>": 24})";
constexpr const char* merges = "#version: 0.2\nh e\nl l\nhe ll\nhell o\nĠ w\no r\nĠw or\nĠwor l\nĠworl d\nÃ ©\n' s\n";
constexpr int smallVocab = 25 + 1 + 99 + 6 + 1501;

TEST(WhisperTokenizer, EncodesByMergeRankAndDecodesBytesBack)
{
    Tokenizer tok = PLIM_MUST(Tokenizer::fromText(vocab, merges, smallVocab));
    // "hello" | " world" | "'s" | " é", and a run of two blanks leaves one for the next word.
    EXPECT_EQ(tok.encode("hello world's é"), (std::vector<int>{16, 21, 23, 4, 22}));
    EXPECT_EQ(tok.encode("hello  world"), (std::vector<int>{16, 4, 21}));
    EXPECT_EQ(tok.decode(std::vector<int>{16, 21, 23, 4, 22}), "hello world's é");
    // A character split across tokens decodes to its bytes; special tokens decode to nothing.
    EXPECT_EQ(tok.decode(std::vector<int>{4, 11}), " \xC3");
    EXPECT_EQ(tok.decode(std::vector<int>{11, 24, 12, tok.special().firstTimestamp}), "é");
    EXPECT_EQ(tok.special().endOfText, 24);
    EXPECT_EQ(tok.special().firstTimestamp + 1501, smallVocab);
    EXPECT_EQ(tok.timeOf(tok.special().firstTimestamp + 1500), 30.0);

    for (auto [json, mergeText, size, file] :
        {std::tuple{"[1, 2]", merges, smallVocab, "vocab.json"}, std::tuple{vocab, "h e\nnoblank\n", smallVocab, "merges.txt"},
            std::tuple{vocab, merges, 100, "vocab.json"}}) {
        auto bad = Tokenizer::fromText(json, mergeText, size);
        ASSERT_FALSE(bad);
        EXPECT_EQ(bad.error().kind, Error::Kind::corrupt);
        EXPECT_NE(bad.error().sentence.find(file), std::string::npos) << bad.error().sentence;
    }
}

TEST(WhisperTokenizer, SpecialTokensSitWhereThePublishedModelsHaveThem)
{
    // English-only (GPT-2's 50256 text tokens), multilingual (50257), large-v3 (100 languages).
    auto en = PLIM_MUST(Tokenizer::fromText(R"({"<|endoftext|>": 50256})", "", 51864));
    EXPECT_FALSE(en.multilingual());
    EXPECT_EQ(en.special().startOfTranscript, 50257);
    EXPECT_EQ(en.special().transcribe, 50358);
    EXPECT_EQ(en.special().noTimestamps, 50362);
    EXPECT_EQ(en.special().firstTimestamp, 50363);

    // Some vocabularies list the special tokens too; their places still follow the layout.
    auto multi = PLIM_MUST(Tokenizer::fromText(R"({"<|endoftext|>": 50257, "<|startoftranscript|>": 50258})", "", 51865));
    EXPECT_TRUE(multi.multilingual());
    EXPECT_EQ(multi.languageToken("en"), 50259);
    EXPECT_EQ(multi.languageToken("de"), 50261);
    EXPECT_EQ(multi.languageToken("yue"), std::nullopt);
    EXPECT_EQ(multi.languageCode(50259 + 98), "su");
    EXPECT_EQ(multi.special().translate, 50358);
    EXPECT_EQ(multi.special().transcribe, 50359);
    EXPECT_EQ(multi.special().noSpeech, 50362);
    EXPECT_EQ(multi.special().firstTimestamp, 50364);

    auto v3 = PLIM_MUST(Tokenizer::fromText(R"({"<|endoftext|>": 50257})", "", 51866));
    EXPECT_EQ(v3.languageToken("yue"), 50358);
    EXPECT_EQ(v3.special().transcribe, 50360);
    EXPECT_EQ(v3.special().firstTimestamp, 50365);
}

} // namespace
} // namespace plim::whisper
