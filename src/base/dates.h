#pragma once
// ISO 8601 instants ("2026-11-22T21:04:05Z") and random UUIDs in their standard text form.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace plim {

using SystemTime = std::chrono::system_clock::time_point;

// UTC, whole seconds, "Z" suffix.
std::string iso8601(SystemTime instant);
// Accepts "Z" or "+hh:mm"/"-hh:mm" offsets and optional fractional seconds.
std::optional<SystemTime> parseIso8601(std::string_view text);

// "en_US_POSIX"-style readable date for sentences: "Nov 22, 2026 at 9:04:05 PM" (UTC).
std::string readableDate(SystemTime instant);

// A random (version 4) UUID, upper-case hex: "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
std::string makeUuid();
// True for 8-4-4-4-12 hex digits in either case.
bool isUuid(std::string_view text);

} // namespace plim
