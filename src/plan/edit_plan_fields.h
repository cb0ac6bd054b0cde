#pragma once
// Strict readers for the members of the plan's nested values: a key that is absent,
// null or of another type gives nothing, and the caller decides what that costs.

#include "base/dates.h"
#include "base/json.h"

#include <cctype>
#include <cmath>
#include <optional>
#include <string>
#include <string_view>

namespace plim::plan_fields {

// A UUID text, returned upper case.
inline std::optional<std::string> uuid(const Json& object, std::string_view key)
{
    const Json* value = jsonField(object, key);
    return value ? jsonUuid(*value) : std::nullopt;
}

// Whether an optional member is usable: absent (or null) is fine, present must parse.
template<typename T>
struct Optional {
    bool ok = true;
    std::optional<T> value;
};

inline Optional<double> optionalNumber(const Json& object, std::string_view key)
{
    if (!jsonField(object, key))
        return {};
    auto v = jsonNumber(object, key);
    return {v.has_value(), v};
}

inline Optional<bool> optionalBool(const Json& object, std::string_view key)
{
    if (!jsonField(object, key))
        return {};
    auto v = jsonBool(object, key);
    return {v.has_value(), v};
}

inline Optional<std::string> optionalString(const Json& object, std::string_view key)
{
    if (!jsonField(object, key))
        return {};
    auto v = jsonString(object, key);
    return {v.has_value(), v};
}

} // namespace plim::plan_fields
