#include "base/dates.h"

#include <sys/random.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <random>

namespace plim {

std::string iso8601(SystemTime instant)
{
    std::time_t t = std::chrono::system_clock::to_time_t(
        std::chrono::floor<std::chrono::seconds>(instant));
    std::tm tm{};
    gmtime_r(&t, &tm);
    char out[32];
    std::strftime(out, sizeof out, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return out;
}

namespace {

bool readDigits(std::string_view text, size_t& at, size_t count, int& value)
{
    if (at + count > text.size())
        return false;
    value = 0;
    for (size_t i = 0; i < count; ++i) {
        char c = text[at + i];
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + (c - '0');
    }
    at += count;
    return true;
}

bool expect(std::string_view text, size_t& at, char c)
{
    if (at >= text.size() || text[at] != c)
        return false;
    ++at;
    return true;
}

} // namespace

std::optional<MillisecondTime> parseIso8601Millis(std::string_view text)
{
    using namespace std::chrono;
    size_t at = 0;
    int y, mo, d, h, mi, s;
    if (!readDigits(text, at, 4, y) || !expect(text, at, '-') || !readDigits(text, at, 2, mo) || !expect(text, at, '-')
        || !readDigits(text, at, 2, d) || !expect(text, at, 'T') || !readDigits(text, at, 2, h)
        || !expect(text, at, ':') || !readDigits(text, at, 2, mi) || !expect(text, at, ':')
        || !readDigits(text, at, 2, s))
        return std::nullopt;
    int millis = 0;
    if (at < text.size() && text[at] == '.') {
        size_t start = ++at;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            if (at - start < 3)
                millis = millis * 10 + (text[at] - '0');
            ++at;
        }
        if (at == start)
            return std::nullopt;
        for (size_t n = at - start; n < 3; ++n)
            millis *= 10;
    }
    int offsetMinutes = 0;
    if (at < text.size() && (text[at] == 'Z' || text[at] == 'z')) {
        ++at;
    } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        int sign = text[at] == '-' ? -1 : 1;
        ++at;
        int oh, om;
        if (!readDigits(text, at, 2, oh) || !expect(text, at, ':') || !readDigits(text, at, 2, om) || oh > 23 || om > 59)
            return std::nullopt;
        offsetMinutes = sign * (oh * 60 + om);
    } else {
        return std::nullopt;
    }
    if (at != text.size())
        return std::nullopt;
    year_month_day date{year(y), month(static_cast<unsigned>(mo)), day(static_cast<unsigned>(d))};
    if (!date.ok() || h > 23 || mi > 59 || s > 59)
        return std::nullopt;
    auto instant = sys_days(date) + hours(h) + minutes(mi) + seconds(s) + milliseconds(millis) - minutes(offsetMinutes);
    int utcYear = static_cast<int>(year_month_day(floor<days>(instant)).year());
    if (utcYear < 0 || utcYear > 9999)
        return std::nullopt;
    return time_point_cast<milliseconds>(instant);
}

std::optional<SystemTime> parseIso8601(std::string_view text)
{
    using namespace std::chrono;
    auto instant = parseIso8601Millis(text);
    if (!instant)
        return std::nullopt;
    auto earliest = time_point_cast<milliseconds>(SystemTime::min()) + seconds(1);
    auto latest = time_point_cast<milliseconds>(SystemTime::max()) - seconds(1);
    if (*instant < earliest || *instant > latest)
        return std::nullopt;
    return time_point_cast<SystemTime::duration>(*instant);
}

std::string readableDate(SystemTime instant)
{
    std::time_t t = std::chrono::system_clock::to_time_t(instant);
    std::tm tm{};
    gmtime_r(&t, &tm);
    static const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    int hour12 = tm.tm_hour % 12 == 0 ? 12 : tm.tm_hour % 12;
    char out[64];
    std::snprintf(out, sizeof out, "%s %d, %d at %d:%02d:%02d %s", months[tm.tm_mon], tm.tm_mday, tm.tm_year + 1900,
        hour12, tm.tm_min, tm.tm_sec, tm.tm_hour < 12 ? "AM" : "PM");
    return out;
}

std::string makeUuid()
{
    // 122 random bits from the kernel's generator (which waits only until its pool is
    // first seeded, early in boot); each fresh, never drawn from a seeded sequence.
    unsigned char bytes[16];
    size_t got = 0;
    while (got < sizeof bytes) {
        ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
        if (n > 0)
            got += size_t(n);
        else if (errno != EINTR)
            break;
    }
    if (got < sizeof bytes) { // a kernel without getrandom: the device, 32 bits a draw
        std::random_device device;
        for (size_t i = 0; i < sizeof bytes; ++i)
            bytes[i] = static_cast<unsigned char>(device());
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
    char out[37];
    std::snprintf(out, sizeof out, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
        bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8], bytes[9],
        bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
    return out;
}

bool isUuid(std::string_view text)
{
    if (text.size() != 36)
        return false;
    for (size_t i = 0; i < 36; ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i])))
            return false;
    }
    return true;
}

} // namespace plim
