#include "base/dates.h"

#include <cctype>
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

std::optional<SystemTime> parseIso8601(std::string_view text)
{
    int y, mo, d, h, mi, s, consumed = 0;
    std::string str(text);
    if (std::sscanf(str.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &y, &mo, &d, &h, &mi, &s, &consumed) != 6 || consumed != 19)
        return std::nullopt;
    if (mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 60)
        return std::nullopt;
    size_t i = 19;
    double fraction = 0;
    if (i < str.size() && str[i] == '.') {
        size_t start = ++i;
        while (i < str.size() && std::isdigit(static_cast<unsigned char>(str[i])))
            ++i;
        if (i == start)
            return std::nullopt;
        fraction = std::stod("0." + str.substr(start, i - start));
    }
    long offset = 0;
    if (i < str.size() && (str[i] == 'Z' || str[i] == 'z')) {
        ++i;
    } else if (i < str.size() && (str[i] == '+' || str[i] == '-')) {
        int oh, om;
        if (std::sscanf(str.c_str() + i + 1, "%2d:%2d", &oh, &om) != 2 || i + 6 > str.size())
            return std::nullopt;
        offset = (oh * 3600L + om * 60L) * (str[i] == '-' ? -1 : 1);
        i += 6;
    } else {
        return std::nullopt;
    }
    if (i != str.size())
        return std::nullopt;
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    std::time_t t = timegm(&tm) - offset;
    auto instant = std::chrono::system_clock::from_time_t(t);
    return instant + std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::duration<double>(fraction));
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
    static thread_local std::mt19937_64 random{std::random_device{}()};
    unsigned char bytes[16];
    for (int i = 0; i < 16; i += 8) {
        uint64_t r = random();
        for (int j = 0; j < 8; ++j)
            bytes[i + j] = static_cast<unsigned char>(r >> (8 * j));
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
