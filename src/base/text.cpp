#include "base/text.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <utf8proc.h>

namespace plim {

std::string trimmed(std::string_view text)
{
    constexpr std::string_view space = " \t\r\n\f\v";
    auto first = text.find_first_not_of(space);
    if (first == std::string_view::npos)
        return {};
    auto last = text.find_last_not_of(space);
    return std::string(text.substr(first, last - first + 1));
}

std::string utf8Encode(char32_t c)
{
    if (!utf8proc_codepoint_valid(static_cast<utf8proc_int32_t>(c)))
        return {};
    utf8proc_uint8_t bytes[4];
    auto length = utf8proc_encode_char(static_cast<utf8proc_int32_t>(c), bytes);
    return std::string(reinterpret_cast<const char*>(bytes), static_cast<size_t>(length));
}

std::optional<char32_t> utf8Decode(std::string_view text, size_t& at)
{
    if (at >= text.size())
        return std::nullopt;
    utf8proc_int32_t c = -1;
    auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + at),
        static_cast<utf8proc_ssize_t>(text.size() - at), &c);
    if (length <= 0 || c < 0)
        return std::nullopt;
    at += static_cast<size_t>(length);
    return static_cast<char32_t>(c);
}

bool isValidUtf8(std::string_view text)
{
    for (size_t at = 0; at < text.size();)
        if (!utf8Decode(text, at))
            return false;
    return true;
}

size_t graphemeCount(std::string_view text)
{
    size_t count = 0;
    utf8proc_int32_t state = 0;
    // The code point before, when the one before was one (a plain value: GCC 12 at -O3
    // thinks an optional's value may be read uninitialised here).
    char32_t previous = 0;
    bool hasPrevious = false;
    for (size_t at = 0; at < text.size();) {
        auto c = utf8Decode(text, at);
        if (!c) {
            ++at;
            ++count;
            hasPrevious = false;
            state = 0;
            continue;
        }
        if (!hasPrevious || utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(previous),
                                static_cast<utf8proc_int32_t>(*c), &state))
            ++count;
        previous = *c;
        hasPrevious = true;
    }
    return count;
}

char32_t upperCase(char32_t c)
{
    if (!utf8proc_codepoint_valid(static_cast<utf8proc_int32_t>(c)))
        return c;
    return static_cast<char32_t>(utf8proc_toupper(static_cast<utf8proc_int32_t>(c)));
}

char32_t lowerCase(char32_t c)
{
    if (!utf8proc_codepoint_valid(static_cast<utf8proc_int32_t>(c)))
        return c;
    return static_cast<char32_t>(utf8proc_tolower(static_cast<utf8proc_int32_t>(c)));
}

std::string escapedText(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    char buffer[12];
    for (size_t at = 0; at < text.size();) {
        size_t start = at;
        auto c = utf8Decode(text, at);
        if (!c) {
            std::snprintf(buffer, sizeof buffer, "\\x%02x", static_cast<unsigned char>(text[at]));
            out += buffer;
            ++at;
            continue;
        }
        switch (*c) {
        case '\n': out += "\\n"; continue;
        case '\t': out += "\\t"; continue;
        case '\r': out += "\\r"; continue;
        default: break;
        }
        if (*c < 0x20 || *c == 0x7f) {
            std::snprintf(buffer, sizeof buffer, "\\x%02x", static_cast<unsigned>(*c));
            out += buffer;
        } else if (*c >= 0x80 && *c < 0xa0) {
            std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned>(*c));
            out += buffer;
        } else {
            out.append(text.substr(start, at - start));
        }
    }
    return out;
}

std::string numberText(double value, int decimals)
{
    if (std::isnan(value))
        return "not a number";
    if (std::isinf(value))
        return value > 0 ? "infinity" : "minus infinity";
    char text[48];
    const int places = std::clamp(decimals, 0, 6);
    if (std::abs(value) < 1e9 && (value == 0 || std::abs(value) >= 1e-4))
        std::snprintf(text, sizeof text, "%.*f", places, value);
    else
        std::snprintf(text, sizeof text, "%.3g", value);
    return text;
}

std::string percentEncoded(std::string_view path)
{
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::string percentDecoded(std::string_view text)
{
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        int high = 0, low = 0;
        if (text[i] == '%' && i + 2 < text.size() && (high = digit(text[i + 1])) >= 0 && (low = digit(text[i + 2])) >= 0) {
            out.push_back(static_cast<char>(high * 16 + low));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

std::string quoted(const std::string& name) { return "\"" + name + "\""; }

std::string clause(std::string sentence)
{
    while (!sentence.empty() && (sentence.back() == '.' || sentence.back() == ' '))
        sentence.pop_back();
    return sentence;
}

} // namespace plim
