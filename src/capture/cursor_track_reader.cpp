#include "capture/cursor_track_reader.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace plim {

TrackValue TrackValue::of(const Json* value)
{
    TrackValue out;
    if (!value)
        return out;
    switch (value->type()) {
    case Json::value_t::null:
        break;
    case Json::value_t::boolean:
        out.kind = Kind::boolean;
        out.boolean = value->get<bool>();
        break;
    case Json::value_t::number_integer:
        out.kind = Kind::signedInteger;
        out.signedInteger = value->get<int64_t>();
        break;
    case Json::value_t::number_unsigned:
        out.kind = Kind::unsignedInteger;
        out.unsignedInteger = value->get<uint64_t>();
        break;
    case Json::value_t::number_float:
        out.kind = Kind::real;
        out.real = value->get<double>();
        break;
    case Json::value_t::string:
        out.kind = Kind::string;
        break;
    case Json::value_t::array:
        out.kind = Kind::array;
        break;
    case Json::value_t::object:
        out.kind = Kind::object;
        break;
    default:
        out.kind = Kind::other;
        break;
    }
    return out;
}

std::optional<double> trackNumber(const TrackValue& value)
{
    switch (value.kind) {
    case TrackValue::Kind::signedInteger:
        return static_cast<double>(value.signedInteger);
    case TrackValue::Kind::unsignedInteger:
        return static_cast<double>(value.unsignedInteger);
    case TrackValue::Kind::real:
        if (std::isfinite(value.real))
            return value.real;
        return std::nullopt;
    default:
        return std::nullopt;
    }
}

std::optional<int64_t> trackInteger(const TrackValue& value)
{
    switch (value.kind) {
    case TrackValue::Kind::signedInteger:
        return value.signedInteger;
    case TrackValue::Kind::unsignedInteger:
        if (value.unsignedInteger > static_cast<uint64_t>(INT64_MAX))
            return std::nullopt;
        return static_cast<int64_t>(value.unsignedInteger);
    case TrackValue::Kind::real: {
        double d = value.real;
        if (std::isfinite(d) && std::floor(d) == d && std::fabs(d) < 9.2e18)
            return static_cast<int64_t>(d);
        return std::nullopt;
    }
    default:
        return std::nullopt;
    }
}

int trackTypingFlag(const TrackValue& value)
{
    if (value.kind == TrackValue::Kind::boolean)
        return value.boolean ? 1 : 0;
    auto number = trackNumber(value);
    return number && *number != 0 ? 1 : 0;
}

std::optional<CursorSample> TrackEntry<CursorSample>::make(const TrackValue&, const std::array<TrackValue, 4>& at)
{
    auto t = trackInteger(at[0]);
    auto x = trackNumber(at[1]);
    auto y = trackNumber(at[2]);
    if (!t || !x || !y)
        return std::nullopt;
    return CursorSample{*t, *x, *y, trackTypingFlag(at[3])};
}

std::optional<ClickEvent> TrackEntry<ClickEvent>::make(const TrackValue&, const std::array<TrackValue, 3>& at)
{
    auto t = trackInteger(at[0]);
    auto x = trackNumber(at[1]);
    auto y = trackNumber(at[2]);
    if (!t || !x || !y)
        return std::nullopt;
    return ClickEvent{*t, *x, *y};
}

std::optional<Mark> TrackEntry<Mark>::make(const TrackValue& whole, const std::array<TrackValue, 1>& at)
{
    // A bare number is accepted as the mark's time too.
    if (auto t = trackInteger(whole))
        return Mark{*t};
    if (auto t = trackInteger(at[0]))
        return Mark{*t};
    return std::nullopt;
}

std::optional<CursorTrack::FrameKey> TrackEntry<CursorTrack::FrameKey>::make(
    const TrackValue&, const std::array<TrackValue, 5>& at)
{
    auto t = trackInteger(at[0]);
    auto x = trackNumber(at[1]);
    auto y = trackNumber(at[2]);
    auto w = trackNumber(at[3]);
    auto h = trackNumber(at[4]);
    if (!t || !x || !y || !w || !h)
        return std::nullopt;
    return CursorTrack::FrameKey{*t, *x, *y, *w, *h};
}

// ---------------------------------------------------------------------------------------
// From a tree

namespace {

const Json* member(const Json& object, std::string_view key)
{
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

template<typename T>
TrackList<T> listOf(const Json& object, std::string_view key)
{
    TrackList<T> out;
    const Json* array = member(object, key);
    if (!array || array->is_null())
        return out;
    if (!array->is_array()) {
        out.state = TrackList<T>::State::notAList;
        return out;
    }
    out.state = TrackList<T>::State::list;
    out.items.reserve(array->size());
    constexpr auto& keys = TrackEntry<T>::keys;
    for (const Json& entry : *array) {
        std::array<TrackValue, keys.size()> at{};
        if (entry.is_object())
            for (size_t i = 0; i < keys.size(); ++i)
                at[i] = TrackValue::of(member(entry, keys[i]));
        if (auto item = TrackEntry<T>::make(TrackValue::of(&entry), at))
            out.items.push_back(*item);
        else
            ++out.dropped;
    }
    return out;
}

} // namespace

CursorTrackFields trackFieldsOf(const Json& object)
{
    CursorTrackFields fields;
    if (!object.is_object())
        return fields;
    for (size_t i = 0; i < trackGeometryKeys.size(); ++i)
        fields.geometry[i] = TrackValue::of(member(object, trackGeometryKeys[i]));
    fields.videoStartOffsetMS = TrackValue::of(member(object, "videoStartOffsetMS"));
    const Json* subject = member(object, "subjectKind");
    fields.subjectKind = TrackValue::of(subject);
    if (subject && subject->is_string())
        fields.subjectKindText = subject->get<std::string>();
    fields.cameraOffsetMS = TrackValue::of(member(object, "cameraOffsetMS"));
    fields.samples = listOf<CursorSample>(object, "samples");
    fields.clicks = listOf<ClickEvent>(object, "clicks");
    fields.marks = listOf<Mark>(object, "marks");
    fields.frames = listOf<CursorTrack::FrameKey>(object, "frames");
    return fields;
}

// ---------------------------------------------------------------------------------------
// From text

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Length of the well-formed UTF-8 sequence of two to four bytes at p, or 0.
size_t utf8Sequence(const char* p, const char* end)
{
    auto byte = [&](size_t i) { return p + i < end ? static_cast<unsigned char>(p[i]) : 0u; };
    auto inRange = [](unsigned b, unsigned lo, unsigned hi) { return b >= lo && b <= hi; };
    unsigned b0 = byte(0);
    if (inRange(b0, 0xC2, 0xDF))
        return inRange(byte(1), 0x80, 0xBF) ? 2 : 0;
    if (inRange(b0, 0xE0, 0xEF)) {
        unsigned lo = b0 == 0xE0 ? 0xA0 : 0x80;
        unsigned hi = b0 == 0xED ? 0x9F : 0xBF;
        return inRange(byte(1), lo, hi) && inRange(byte(2), 0x80, 0xBF) ? 3 : 0;
    }
    if (inRange(b0, 0xF0, 0xF4)) {
        unsigned lo = b0 == 0xF0 ? 0x90 : 0x80;
        unsigned hi = b0 == 0xF4 ? 0x8F : 0xBF;
        return inRange(byte(1), lo, hi) && inRange(byte(2), 0x80, 0xBF) && inRange(byte(3), 0x80, 0xBF) ? 4 : 0;
    }
    return 0;
}

void appendUtf8(std::string& out, uint32_t cp)
{
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// A strict JSON scanner over one text. Every member returns false at the first departure
// from the grammar; the end of the text reads as a NUL byte, which no JSON token accepts.
class Scanner {
public:
    explicit Scanner(std::string_view text)
        : p(text.data())
        , end(text.data() + text.size())
    {
    }

    std::expected<CursorTrackFields, TrackTextFailure> track()
    {
        if (end - p >= 1 && static_cast<unsigned char>(*p) == 0xEF) {
            if (end - p < 3 || static_cast<unsigned char>(p[1]) != 0xBB || static_cast<unsigned char>(p[2]) != 0xBF)
                return std::unexpected(TrackTextFailure::notJson);
            p += 3;
        }
        skipSpace();
        if (peek() != '{') {
            TrackValue ignored;
            if (!value(ignored, nullptr) || !atEnd())
                return std::unexpected(TrackTextFailure::notJson);
            return std::unexpected(TrackTextFailure::notAnObject);
        }
        CursorTrackFields fields;
        if (!topObject(fields) || !atEnd())
            return std::unexpected(TrackTextFailure::notJson);
        return fields;
    }

private:
    const char* p;
    const char* end;
    std::string scratch;   // decoded text of a string with escapes or non-ASCII bytes
    std::string nesting;   // open containers while skipping a value: '{' or '['

    char peek() const { return p < end ? *p : '\0'; }
    char next() { return p < end ? *p++ : '\0'; }

    void skipSpace()
    {
        while (p < end && (*p == ' ' || *p == '\n' || *p == '\r' || *p == '\t'))
            ++p;
    }

    // After the top value only space may follow, up to the end or a NUL byte (nlohmann
    // stops reading there too).
    bool atEnd()
    {
        skipSpace();
        return p == end || *p == '\0';
    }

    // After skipping space, consumes `c` if it is next.
    bool take(char c)
    {
        skipSpace();
        if (peek() != c)
            return false;
        ++p;
        return true;
    }

    // At an opening quote: consumes the string. When `keep`, `text` is its decoded value
    // (valid until the next string is read).
    bool string(std::string_view& text, bool keep)
    {
        ++p;
        const char* start = p;
        while (p < end) {
            auto c = static_cast<unsigned char>(*p);
            if (c == '"') {
                text = std::string_view(start, static_cast<size_t>(p - start));
                ++p;
                return true;
            }
            if (c == '\\' || c < 0x20 || c >= 0x80)
                break;
            ++p;
        }
        if (keep)
            scratch.assign(start, p);
        for (;;) {
            if (p >= end)
                return false;
            auto c = static_cast<unsigned char>(*p);
            if (c == '"') {
                ++p;
                text = scratch;
                return true;
            }
            if (c < 0x20)
                return false;
            if (c == '\\') {
                if (!escape(keep))
                    return false;
            } else if (c < 0x80) {
                if (keep)
                    scratch += static_cast<char>(c);
                ++p;
            } else {
                size_t n = utf8Sequence(p, end);
                if (n == 0)
                    return false;
                if (keep)
                    scratch.append(p, n);
                p += n;
            }
        }
    }

    bool hex4(uint32_t& out)
    {
        if (end - p < 4)
            return false;
        out = 0;
        for (int i = 0; i < 4; ++i) {
            int h = hexValue(p[i]);
            if (h < 0)
                return false;
            out = out * 16 + static_cast<uint32_t>(h);
        }
        p += 4;
        return true;
    }

    // At a backslash inside a string.
    bool escape(bool keep)
    {
        ++p;
        char c = next();
        char plain = 0;
        switch (c) {
        case '"': plain = '"'; break;
        case '\\': plain = '\\'; break;
        case '/': plain = '/'; break;
        case 'b': plain = '\b'; break;
        case 'f': plain = '\f'; break;
        case 'n': plain = '\n'; break;
        case 'r': plain = '\r'; break;
        case 't': plain = '\t'; break;
        case 'u': {
            uint32_t cp = 0;
            if (!hex4(cp))
                return false;
            if (cp >= 0xD800 && cp <= 0xDBFF) {
                uint32_t low = 0;
                if (end - p < 2 || p[0] != '\\' || p[1] != 'u')
                    return false;
                p += 2;
                if (!hex4(low) || low < 0xDC00 || low > 0xDFFF)
                    return false;
                cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
            } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
                return false;
            }
            if (keep)
                appendUtf8(scratch, cp);
            return true;
        }
        default:
            return false;
        }
        if (keep)
            scratch += plain;
        return true;
    }

    bool literal(std::string_view word)
    {
        if (static_cast<size_t>(end - p) < word.size() || std::memcmp(p, word.data(), word.size()) != 0)
            return false;
        p += word.size();
        return true;
    }

    // Integers that fit 64 bits stay integers (unsigned unless negative); every other
    // number is a double, and one too large for a double is refused.
    bool number(TrackValue& v)
    {
        const char* start = p;
        bool negative = false;
        if (peek() == '-') {
            negative = true;
            ++p;
        }
        const char* intStart = p;
        if (peek() == '0') {
            ++p;
        } else if (peek() >= '1' && peek() <= '9') {
            while (isDigit(peek()))
                ++p;
        } else {
            return false;
        }
        const char* intEnd = p;
        const char* fracStart = p;
        bool integral = true;
        if (peek() == '.') {
            ++p;
            fracStart = p;
            if (!isDigit(peek()))
                return false;
            while (isDigit(peek()))
                ++p;
            integral = false;
        }
        const char* fracEnd = p;
        int64_t exponent = 0;
        if (peek() == 'e' || peek() == 'E') {
            ++p;
            bool down = false;
            if (peek() == '+' || peek() == '-')
                down = *p++ == '-';
            if (!isDigit(peek()))
                return false;
            while (isDigit(peek())) {
                if (exponent < 1'000'000'000)
                    exponent = exponent * 10 + (*p - '0');
                ++p;
            }
            if (down)
                exponent = -exponent;
            integral = false;
        }

        if (integral) {
            if (negative) {
                auto r = std::from_chars(start, p, v.signedInteger);
                if (r.ec == std::errc()) {
                    v.kind = TrackValue::Kind::signedInteger;
                    return true;
                }
            } else {
                auto r = std::from_chars(start, p, v.unsignedInteger);
                if (r.ec == std::errc()) {
                    v.kind = TrackValue::Kind::unsignedInteger;
                    return true;
                }
            }
        }
        v.kind = TrackValue::Kind::real;
        auto r = std::from_chars(start, p, v.real);
        if (r.ec == std::errc())
            return true;
        if (r.ec != std::errc::result_out_of_range)
            return false;
        // Out of range either way: decide by the decimal magnitude whether the value
        // overflowed (refused) or underflowed to zero (kept, as a signed zero).
        int64_t magnitude = exponent;
        if (!(intEnd - intStart == 1 && *intStart == '0')) {
            magnitude += intEnd - intStart;
        } else {
            const char* q = fracStart;
            while (q < fracEnd && *q == '0')
                ++q;
            magnitude -= q - fracStart;
        }
        if (magnitude > 0)
            return false;
        v.real = negative ? -0.0 : 0.0;
        return true;
    }

    // Any value. Containers are checked and skipped; a string's text is kept in `text`
    // when given.
    bool value(TrackValue& v, std::string* text)
    {
        v = TrackValue{};
        skipSpace();
        switch (peek()) {
        case '{':
            v.kind = TrackValue::Kind::object;
            return skipContainer();
        case '[':
            v.kind = TrackValue::Kind::array;
            return skipContainer();
        case '"': {
            v.kind = TrackValue::Kind::string;
            std::string_view s;
            if (!string(s, text != nullptr))
                return false;
            if (text)
                text->assign(s);
            return true;
        }
        case 't':
            v.kind = TrackValue::Kind::boolean;
            v.boolean = true;
            return literal("true");
        case 'f':
            v.kind = TrackValue::Kind::boolean;
            return literal("false");
        case 'n':
            return literal("null");
        default:
            return number(v);
        }
    }

    // At '{' or '[': consumes the whole container, however deeply nested, without recursion.
    bool skipContainer()
    {
        nesting.clear();
        TrackValue scalar;
        std::string_view ignored;
        for (;;) {
            // A value is next.
            skipSpace();
            char c = peek();
            if (c == '{' || c == '[') {
                ++p;
                char close = c == '{' ? '}' : ']';
                if (take(close)) {
                    // empty container: falls through to what follows a value
                } else {
                    nesting += c;
                    if (c == '{' && !memberKey())
                        return false;
                    continue;
                }
            } else if (c == '"') {
                if (!string(ignored, false))
                    return false;
            } else if (c == 't' || c == 'f' || c == 'n' || c == '-' || isDigit(c)) {
                if (!value(scalar, nullptr))
                    return false;
            } else {
                return false;
            }
            // What follows a value: a comma, or the end of one or more containers.
            for (;;) {
                if (nesting.empty())
                    return true;
                skipSpace();
                char open = nesting.back();
                char c = next();
                if (c == ',') {
                    if (open == '{' && !memberKey())
                        return false;
                    break;
                }
                if (c != (open == '{' ? '}' : ']'))
                    return false;
                nesting.pop_back();
            }
        }
    }

    // A member's key and colon.
    bool memberKey()
    {
        skipSpace();
        std::string_view ignored;
        return peek() == '"' && string(ignored, false) && take(':');
    }

    // A key and colon, keeping the key's text.
    bool key(std::string_view& name)
    {
        skipSpace();
        return peek() == '"' && string(name, true) && take(':');
    }

    // After an object's member or array's entry: true and `more` when a comma follows.
    bool separator(char close, bool& more)
    {
        skipSpace();
        char c = next();
        more = c == ',';
        return more || c == close;
    }

    template<typename T>
    bool list(TrackList<T>& out)
    {
        out = TrackList<T>{};
        skipSpace();
        if (peek() != '[') {
            TrackValue v;
            if (!value(v, nullptr))
                return false;
            if (v.kind != TrackValue::Kind::absent)
                out.state = TrackList<T>::State::notAList;
            return true;
        }
        ++p;
        out.state = TrackList<T>::State::list;
        if (take(']'))
            return true;
        constexpr auto& keys = TrackEntry<T>::keys;
        for (bool more = true; more;) {
            std::array<TrackValue, keys.size()> at{};
            TrackValue whole;
            skipSpace();
            if (peek() == '{') {
                ++p;
                whole.kind = TrackValue::Kind::object;
                if (!take('}')) {
                    for (bool members = true; members;) {
                        std::string_view name;
                        if (!key(name))
                            return false;
                        size_t i = 0;
                        while (i < keys.size() && keys[i] != name)
                            ++i;
                        TrackValue ignored;
                        if (!value(i < keys.size() ? at[i] : ignored, nullptr) || !separator('}', members))
                            return false;
                    }
                }
            } else if (!value(whole, nullptr)) {
                return false;
            }
            if (auto item = TrackEntry<T>::make(whole, at))
                out.items.push_back(*item);
            else
                ++out.dropped;
            if (!separator(']', more))
                return false;
        }
        return true;
    }

    bool topObject(CursorTrackFields& fields)
    {
        ++p;
        if (take('}'))
            return true;
        for (bool more = true; more;) {
            std::string_view name;
            if (!key(name))
                return false;
            bool ok = true;
            if (name == "samples")
                ok = list(fields.samples);
            else if (name == "clicks")
                ok = list(fields.clicks);
            else if (name == "marks")
                ok = list(fields.marks);
            else if (name == "frames")
                ok = list(fields.frames);
            else if (name == "videoStartOffsetMS")
                ok = value(fields.videoStartOffsetMS, nullptr);
            else if (name == "cameraOffsetMS")
                ok = value(fields.cameraOffsetMS, nullptr);
            else if (name == "subjectKind")
                ok = value(fields.subjectKind, &fields.subjectKindText);
            else {
                size_t i = 0;
                while (i < trackGeometryKeys.size() && trackGeometryKeys[i] != name)
                    ++i;
                TrackValue ignored;
                ok = value(i < trackGeometryKeys.size() ? fields.geometry[i] : ignored, nullptr);
            }
            if (!ok || !separator('}', more))
                return false;
        }
        return true;
    }
};

} // namespace

std::expected<CursorTrackFields, TrackTextFailure> scanTrackText(std::string_view text)
{
    return Scanner(text).track();
}

} // namespace plim
