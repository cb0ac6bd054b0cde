#include "base/decoded.h"
#include "base/text.h"

#include <gtest/gtest.h>

using namespace plim;

TEST(Text, EncodesAndDecodesCodePoints)
{
    struct Case {
        char32_t c;
        std::string bytes;
    };
    for (const Case& k : std::vector<Case>{{U'A', "A"}, {U'ß', "\xc3\x9f"}, {U'€', "\xe2\x82\xac"},
             {U'😀', "\xf0\x9f\x98\x80"}, {0xD800, ""}, {0x110000, ""}}) {
        EXPECT_EQ(utf8Encode(k.c), k.bytes) << static_cast<uint32_t>(k.c);
        if (k.bytes.empty())
            continue;
        size_t at = 0;
        EXPECT_EQ(utf8Decode(k.bytes, at), k.c);
        EXPECT_EQ(at, k.bytes.size());
    }
    for (std::string bad : {"\xff", "\xc3", "\xe2\x82", "\xed\xa0\x80", "\xc0\xaf"}) {
        size_t at = 0;
        EXPECT_FALSE(utf8Decode(bad, at));
        EXPECT_EQ(at, 0u);
        EXPECT_FALSE(isValidUtf8("ok" + bad));
    }
    EXPECT_TRUE(isValidUtf8("Größe €"));
}

TEST(Text, CountsUserPerceivedCharacters)
{
    struct Case {
        std::string text;
        size_t count;
    };
    for (const Case& k : std::vector<Case>{{"", 0}, {"abc", 3}, {"e\xcc\x81", 1}, {"\xf0\x9f\x91\x8d\xf0\x9f\x8f\xbd", 1},
             {"\xf0\x9f\x87\xa9\xf0\x9f\x87\xaa", 1}, {"\r\n", 1}, {"a\xff" "b", 3},
             {"\xf0\x9f\x91\xa9\xe2\x80\x8d\xf0\x9f\x92\xbb!", 2}})
        EXPECT_EQ(graphemeCount(k.text), k.count) << k.text;
}

TEST(Text, CasesLettersThatHaveOne)
{
    EXPECT_EQ(upperCase(U'a'), U'A');
    EXPECT_EQ(upperCase(U'ÿ'), U'Ÿ');
    EXPECT_EQ(upperCase(U'µ'), U'Μ');
    EXPECT_EQ(upperCase(U'ß'), U'ẞ');
    EXPECT_EQ(upperCase(U'1'), U'1');
    EXPECT_EQ(lowerCase(U'Ä'), U'ä');
    EXPECT_EQ(upperCase(0x110000), char32_t(0x110000));
}

TEST(Text, EscapesWhatATerminalWouldObey)
{
    EXPECT_EQ(escapedText("plain Größe"), "plain Größe");
    EXPECT_EQ(escapedText("a\x1b[31mred\x07"), "a\\x1b[31mred\\x07");
    EXPECT_EQ(escapedText("line\nnext\ttab"), "line\\nnext\\ttab");
    EXPECT_EQ(escapedText("\xc2\x9b" "2J"), "\\u009b2J");
    EXPECT_EQ(escapedText("bad\xff\xfe"), "bad\\xff\\xfe");
}

TEST(Decoded, NoticesAppendInOrder)
{
    Decoded<int> d{1, {"first"}};
    appendNotices(d.notices, {"second", "third"});
    EXPECT_EQ(d.notices, (std::vector<std::string>{"first", "second", "third"}));
}
