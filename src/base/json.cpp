#include "base/json.h"

#include "base/dates.h"
#include "base/text.h"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace plim {

int jsonNestingDepth(std::string_view text, int limit)
{
    int depth = 0, deepest = 0;
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
            if (deepest > limit)
                return deepest;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return deepest;
}

Result<Json> parseJson(std::string_view text)
{
    if (jsonNestingDepth(text) > maxJsonDepth)
        return fail("its values nest more than " + std::to_string(maxJsonDepth) + " deep, far deeper than any Plim file",
            Error::Kind::corrupt);
    Json value = Json::parse(text, nullptr, false);
    if (value.is_discarded())
        return fail("it is not valid JSON", Error::Kind::corrupt);
    return value;
}

std::string jsonParseProblem(std::string_view text)
{
    if (jsonNestingDepth(text) > maxJsonDepth)
        return "Its values nest more than " + std::to_string(maxJsonDepth) + " deep, far deeper than any Plim file.";
    std::string what;
    try {
        Json parsed = Json::parse(text);
        (void)parsed;
        return "It is not valid JSON.";
    } catch (const Json::out_of_range&) {
        what = "A number in it is too large to hold";
    } catch (const Json::exception& e) {
        what = e.what();
        if (auto close = what.find("] "); what.starts_with("[json.exception") && close != std::string::npos)
            what = what.substr(close + 2);
    }
    what = escapedText(what);
    if (what.empty())
        return "It is not valid JSON.";
    what[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(what[0])));
    if (what.back() != '.')
        what += '.';
    return what;
}

Result<Json> readJsonFile(const fs::path& path)
{
    std::string bytes = PLIM_TRY(readFileBytes(path));
    if (bytes.empty())
        return fail("the file is empty", Error::Kind::corrupt);
    return parseJson(bytes);
}

std::string encodeJson(const Json& value)
{
    return value.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

Status writeJsonAtomic(const fs::path& path, const Json& value)
{
    return writeFileAtomic(path, encodeJson(value));
}

const Json* jsonField(const Json& object, std::string_view key)
{
    if (!object.is_object())
        return nullptr;
    auto it = object.find(key);
    if (it == object.end() || it->is_null())
        return nullptr;
    return &*it;
}

std::optional<double> jsonNumber(const Json& object, std::string_view key)
{
    const Json* v = jsonField(object, key);
    if (!v || !v->is_number())
        return std::nullopt;
    double d = v->get<double>();
    if (!std::isfinite(d))
        return std::nullopt;
    return d;
}

std::optional<int64_t> jsonAsInteger(const Json& value)
{
    if (value.is_number_integer()) {
        if (value.is_number_unsigned() && value.get<uint64_t>() > static_cast<uint64_t>(INT64_MAX))
            return std::nullopt;
        return value.get<int64_t>();
    }
    if (value.is_number_float()) {
        double d = value.get<double>();
        if (std::isfinite(d) && std::floor(d) == d && std::fabs(d) < 9.2e18)
            return static_cast<int64_t>(d);
    }
    return std::nullopt;
}

std::optional<int64_t> jsonInteger(const Json& object, std::string_view key)
{
    const Json* v = jsonField(object, key);
    return v ? jsonAsInteger(*v) : std::nullopt;
}

std::optional<std::string> jsonString(const Json& object, std::string_view key)
{
    const Json* v = jsonField(object, key);
    if (!v || !v->is_string())
        return std::nullopt;
    return v->get<std::string>();
}

std::optional<bool> jsonBool(const Json& object, std::string_view key)
{
    const Json* v = jsonField(object, key);
    if (!v || !v->is_boolean())
        return std::nullopt;
    return v->get<bool>();
}

std::optional<std::string> jsonUuid(const Json& value)
{
    if (!value.is_string())
        return std::nullopt;
    std::string text = value.get<std::string>();
    if (!isUuid(text))
        return std::nullopt;
    for (char& c : text)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

bool jsonAllFinite(const Json& value)
{
    if (value.is_number_float())
        return std::isfinite(value.get<double>());
    if (value.is_array() || value.is_object())
        for (const auto& item : value)
            if (!jsonAllFinite(item))
                return false;
    return true;
}

} // namespace plim
