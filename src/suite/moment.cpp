#include "suite/moment.h"

#include "base/json.h"

#include <cctype>
#include <clocale>
#include <cstdio>
#include <ctime>
#include <cwctype>
#include <locale.h>

namespace plim {

namespace {

using OrderedJson = nlohmann::ordered_json;
using std::chrono::milliseconds;

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

// Parses "yyyy-MM-ddTHH:mm:ss", an optional fraction when allowed, and "Z" or "+hh:mm".
std::optional<Moment::Instant> parseLayout(std::string_view text, bool withFraction)
{
    size_t at = 0;
    int y, mo, d, h, mi, s;
    if (!readDigits(text, at, 4, y) || !expect(text, at, '-') || !readDigits(text, at, 2, mo) || !expect(text, at, '-')
        || !readDigits(text, at, 2, d) || !expect(text, at, 'T') || !readDigits(text, at, 2, h)
        || !expect(text, at, ':') || !readDigits(text, at, 2, mi) || !expect(text, at, ':')
        || !readDigits(text, at, 2, s))
        return std::nullopt;
    int millis = 0;
    if (withFraction) {
        if (!expect(text, at, '.'))
            return std::nullopt;
        size_t start = at;
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
    if (at < text.size() && text[at] == 'Z') {
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
    std::chrono::year_month_day date{std::chrono::year(y), std::chrono::month(static_cast<unsigned>(mo)),
        std::chrono::day(static_cast<unsigned>(d))};
    if (!date.ok() || h > 23 || mi > 59 || s > 59)
        return std::nullopt;
    auto instant = std::chrono::sys_days(date) + std::chrono::hours(h) + std::chrono::minutes(mi)
        + std::chrono::seconds(s) + milliseconds(millis) - std::chrono::minutes(offsetMinutes);
    return std::chrono::time_point_cast<milliseconds>(instant);
}

std::optional<std::string> optionalString(const Json& object, std::string_view key)
{
    auto it = object.find(key);
    if (it == object.end() || !it->is_string())
        return std::nullopt;
    return it->get<std::string>();
}

OrderedJson encodeRetraction(const Moment::Retraction& r)
{
    OrderedJson out = OrderedJson::object();
    out["app"] = r.app;
    out["ts"] = formatMomentTime(r.ts);
    if (r.source)
        out["source"] = *r.source;
    return out;
}

std::optional<Moment::Retraction> decodeRetraction(const Json& value)
{
    if (!value.is_object())
        return std::nullopt;
    auto app = optionalString(value, "app");
    auto tsText = optionalString(value, "ts");
    if (!app || !tsText)
        return std::nullopt;
    auto ts = parseMomentTime(*tsText);
    if (!ts)
        return std::nullopt;
    return Moment::Retraction{*app, *ts, optionalString(value, "source")};
}

std::string indexKey(std::string_view app, std::string_view rest)
{
    std::string key(app);
    key += '\x1f';
    key += rest;
    return key;
}

void decide(std::map<std::string, Moment::Retraction::Index::Decision>& map, const std::string& key, bool hidden,
    Moment::Instant at)
{
    auto it = map.find(key);
    if (it == map.end() || at >= it->second.decidedAt)
        map[key] = {hidden, at};
}

bool isHidden(const std::map<std::string, Moment::Retraction::Index::Decision>& map, const std::string& key)
{
    auto it = map.find(key);
    return it != map.end() && it->second.hidden;
}

// Decodes one UTF-8 sequence; false on a malformed one.
bool nextCodePoint(std::string_view text, size_t& at, char32_t& out)
{
    unsigned char c = static_cast<unsigned char>(text[at]);
    int extra;
    if (c < 0x80) {
        out = c;
        extra = 0;
    } else if ((c & 0xE0) == 0xC0) {
        out = c & 0x1F;
        extra = 1;
    } else if ((c & 0xF0) == 0xE0) {
        out = c & 0x0F;
        extra = 2;
    } else if ((c & 0xF8) == 0xF0) {
        out = c & 0x07;
        extra = 3;
    } else {
        return false;
    }
    if (at + 1 + extra > text.size())
        return false;
    for (int i = 1; i <= extra; ++i) {
        unsigned char cc = static_cast<unsigned char>(text[at + i]);
        if ((cc & 0xC0) != 0x80)
            return false;
        out = (out << 6) | (cc & 0x3F);
    }
    at += 1 + extra;
    return true;
}

locale_t utf8Locale()
{
    static locale_t locale = [] {
        locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
        return l;
    }();
    return locale;
}

char32_t foldCase(char32_t c)
{
    if (c < 0x80)
        return static_cast<char32_t>(std::tolower(static_cast<int>(c)));
    if (locale_t l = utf8Locale())
        return static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), l));
    return c;
}

} // namespace

std::string formatMomentTime(Moment::Instant instant)
{
    auto day = std::chrono::floor<std::chrono::days>(instant);
    std::chrono::year_month_day date{day};
    std::chrono::hh_mm_ss<milliseconds> time{instant - day};
    char out[48];
    std::snprintf(out, sizeof out, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
        static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
        static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()),
        static_cast<int>(time.subseconds().count()));
    return out;
}

std::optional<Moment::Instant> parseMomentTime(std::string_view text)
{
    if (auto fractional = parseLayout(text, true))
        return fractional;
    return parseLayout(text, false);
}

Moment::Instant momentNow()
{
    return std::chrono::floor<milliseconds>(std::chrono::system_clock::now());
}

bool isValidAppSlug(std::string_view slug)
{
    if (slug.empty())
        return false;
    for (char c : slug)
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')))
            return false;
    return true;
}

std::string invalidAppSlugSentence(std::string_view slug)
{
    return "\"" + std::string(slug) + "\" is not a valid app slug: use lowercase letters and digits only (for example \"plim\").";
}

Result<std::string> Moment::jsonLine() const
{
    OrderedJson out = OrderedJson::object();
    out["schemaVersion"] = schemaVersion;
    out["ts"] = formatMomentTime(ts);
    out["app"] = app;
    out["kind"] = kind;
    out["title"] = title;
    if (detail)
        out["detail"] = *detail;
    OrderedJson list = OrderedJson::array();
    for (const auto& entity : entities) {
        OrderedJson e = OrderedJson::object();
        e["type"] = entity.type;
        e["name"] = entity.name;
        list.push_back(std::move(e));
    }
    out["entities"] = std::move(list);
    out["sensitive"] = sensitive;
    if (source)
        out["source"] = *source;
    if (retracts)
        out["retracts"] = encodeRetraction(*retracts);
    std::string line;
    try {
        line = out.dump(-1, ' ', false, OrderedJson::error_handler_t::strict);
    } catch (const nlohmann::json::exception&) {
        return fail("The moment could not be encoded as UTF-8 text.");
    }
    if (line.find('\n') != std::string::npos)
        return fail("The encoded moment contains a raw newline, which would corrupt the JSONL stream.");
    return line;
}

std::optional<Moment> Moment::fromJsonLine(std::string_view line)
{
    Json value = Json::parse(line, nullptr, false);
    if (value.is_discarded() || !value.is_object())
        return std::nullopt;
    Moment moment;
    if (auto it = value.find("schemaVersion"); it != value.end()) {
        if (!it->is_number_integer())
            return std::nullopt;
        moment.schemaVersion = it->get<int64_t>();
    }
    auto tsText = optionalString(value, "ts");
    auto app = optionalString(value, "app");
    auto kind = optionalString(value, "kind");
    auto title = optionalString(value, "title");
    if (!tsText || !app || !kind || !title)
        return std::nullopt;
    auto ts = parseMomentTime(*tsText);
    if (!ts)
        return std::nullopt;
    moment.ts = *ts;
    moment.app = std::move(*app);
    moment.kind = std::move(*kind);
    moment.title = std::move(*title);
    moment.detail = optionalString(value, "detail");
    if (auto it = value.find("entities"); it != value.end() && it->is_array()) {
        for (const auto& e : *it) {
            if (!e.is_object())
                continue;
            auto type = optionalString(e, "type");
            auto name = optionalString(e, "name");
            if (type && name)
                moment.entities.push_back({std::move(*type), std::move(*name)});
        }
    }
    if (auto it = value.find("sensitive"); it != value.end() && !it->is_null()) {
        // A record that may be private is never shown as public by accident.
        if (!it->is_boolean())
            return std::nullopt;
        moment.sensitive = it->get<bool>();
    }
    moment.source = optionalString(value, "source");
    if (auto it = value.find("retracts"); it != value.end())
        moment.retracts = decodeRetraction(*it);
    return moment;
}

void Moment::Retraction::Index::add(const Moment& moment)
{
    if (!moment.isBookkeeping() || !moment.retracts)
        return;
    bool hidden = moment.kind == retractedKind;
    const Retraction& target = *moment.retracts;
    decide(byInstant, indexKey(target.app, formatMomentTime(target.ts)), hidden, moment.ts);
    if (target.source)
        decide(bySource, indexKey(target.app, *target.source), hidden, moment.ts);
}

bool Moment::Retraction::Index::claims(const Moment& moment) const
{
    if (isHidden(byInstant, indexKey(moment.app, formatMomentTime(moment.ts))))
        return true;
    return moment.source && isHidden(bySource, indexKey(moment.app, *moment.source));
}

bool equalsIgnoringCase(std::string_view a, std::string_view b)
{
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        char32_t ca, cb;
        size_t si = i, sj = j;
        bool okA = nextCodePoint(a, i, ca);
        bool okB = nextCodePoint(b, j, cb);
        if (!okA || !okB) {
            // Malformed text compares byte for byte from here on.
            return !okA && !okB && a.substr(si) == b.substr(sj);
        }
        if (foldCase(ca) != foldCase(cb))
            return false;
    }
    return i == a.size() && j == b.size();
}

bool MomentQuery::matches(const Moment& moment) const
{
    if (moment.sensitive && !includeSensitive)
        return false;
    if (moment.isBookkeeping() && !(kinds && kinds->contains(moment.kind)))
        return false;
    if (apps && !apps->contains(moment.app))
        return false;
    if (kinds && !kinds->contains(moment.kind))
        return false;
    if (from && moment.ts < *from)
        return false;
    if (to && moment.ts > *to)
        return false;
    if (entityName) {
        bool found = false;
        for (const auto& entity : moment.entities) {
            if (equalsIgnoringCase(entity.name, *entityName) && (!entityType || entity.type == *entityType)) {
                found = true;
                break;
            }
        }
        if (!found)
            return false;
    }
    return true;
}

} // namespace plim
