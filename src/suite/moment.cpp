#include "suite/moment.h"

#include "base/dates.h"
#include "base/json.h"
#include "base/text.h"

#include <cctype>
#include <cstdio>

namespace plim {

namespace {

using OrderedJson = nlohmann::ordered_json;
using std::chrono::milliseconds;

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
    return parseIso8601Millis(text);
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
        size_t si = i, sj = j;
        auto ca = utf8Decode(a, i);
        auto cb = utf8Decode(b, j);
        if (!ca || !cb) {
            // Malformed text compares byte for byte from here on.
            return !ca && !cb && a.substr(si) == b.substr(sj);
        }
        if (lowerCase(*ca) != lowerCase(*cb))
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
