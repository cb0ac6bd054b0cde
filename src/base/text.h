#pragma once
// Small text helpers shared by readers and sentences. Unicode work (code points,
// case, grapheme clusters) goes through utf8proc.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace plim {

// The text without leading and trailing white space.
std::string trimmed(std::string_view text);

// The UTF-8 bytes of one code point; empty for a surrogate or a value past U+10FFFF.
std::string utf8Encode(char32_t c);

// Decodes the code point starting at `at` and moves `at` past it; nothing (and `at`
// unchanged) for a malformed or truncated sequence.
std::optional<char32_t> utf8Decode(std::string_view text, size_t& at);

// True when the bytes are well-formed UTF-8.
bool isValidUtf8(std::string_view text);

// User-perceived characters (extended grapheme clusters); each malformed byte counts as one.
size_t graphemeCount(std::string_view text);

// The code point's simple upper / lower case mapping (itself when it has none).
char32_t upperCase(char32_t c);
char32_t lowerCase(char32_t c);

// The text made safe to print on a terminal or quote in a sentence: control characters
// become escapes ("\n", "\t", "\x1b", "\u009b") and malformed bytes "\xff"; everything
// else is kept as it is.
std::string escapedText(std::string_view text);

// A number as people read it: `decimals` places below a billion, up to three significant
// digits and an exponent from there on ("2.1e+12") and below 0.0001 ("1e-09"), "infinity" or "not a number" for values that are not finite. Never
// longer than a dozen characters or so.
std::string numberText(double value, int decimals);

// A path as URLs and desktop files write it: every byte outside the unreserved set and "/"
// becomes %XX ("/a b" -> "/a%20b").
std::string percentEncoded(std::string_view path);
// The reverse: each %XX with two hex digits becomes its byte; anything else stays.
std::string percentDecoded(std::string_view text);

// A name in double quotes, as sentences cite a file or a plim: "Demo".
std::string quoted(const std::string& name);
// A sentence used inside another (in parentheses, after a colon) loses its closing full stop.
std::string clause(std::string sentence);

} // namespace plim
