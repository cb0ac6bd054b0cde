#pragma once
// JSON as every Plim file writes it: keys sorted (nlohmann::json keeps objects in a
// std::map), pretty-printed, written atomically. Readers are lenient, so the field
// helpers return nothing for a missing or mistyped key instead of throwing.

#include "base/error.h"
#include "base/files.h"
#include "base/json_fwd.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace plim {

// Deeper nesting than any Plim file has; refused before parsing so that copying or
// walking a parsed value can never exhaust the stack.
inline constexpr int maxJsonDepth = 128;

// Reads and parses a whole file, never modifying it. Errors are readFileBytes's, or
// `corrupt` for an empty file, text that is not JSON or nests too deep; the sentence is
// a short reason for the caller's brackets ("it is not valid JSON").
Result<Json> readJsonFile(const fs::path& path);

// Parses text; errors as for readJsonFile.
Result<Json> parseJson(std::string_view text);

// Why text that failed to parse is not JSON, as the parser puts it, made into one sentence
// for people: the library's bracketed tag dropped, stray bytes escaped, a full stop at the end
// ("Parse error at line 1, column 13: ... expected '}'.").
std::string jsonParseProblem(std::string_view text);

// How deep arrays and objects nest in JSON text (0 for a scalar), counting past the
// limit no further than limit + 1; strings are skipped.
int jsonNestingDepth(std::string_view text, int limit = maxJsonDepth);

// Pretty-printed with two-space indents and sorted keys, ending in a newline.
std::string encodeJson(const Json& value);

Status writeJsonAtomic(const fs::path& path, const Json& value);

// Lenient field access: nothing when the key is absent or holds another type.
std::optional<double> jsonNumber(const Json& object, std::string_view key);
// An integer, or a number with no fractional part that fits 64 bits.
std::optional<int64_t> jsonInteger(const Json& object, std::string_view key);
std::optional<std::string> jsonString(const Json& object, std::string_view key);
std::optional<bool> jsonBool(const Json& object, std::string_view key);
// The value at key when it is present and not null.
const Json* jsonField(const Json& object, std::string_view key);

std::optional<int64_t> jsonAsInteger(const Json& value);

// A UUID in its text form, returned upper case; nothing for anything else.
std::optional<std::string> jsonUuid(const Json& value);

// True when every number in the value is finite (JSON text cannot hold the others).
bool jsonAllFinite(const Json& value);

} // namespace plim
