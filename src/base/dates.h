#pragma once
// ISO 8601 instants ("2026-11-22T21:04:05Z") and random UUIDs in their standard text form.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace plim {

using SystemTime = std::chrono::system_clock::time_point;
using MillisecondTime = std::chrono::sys_time<std::chrono::milliseconds>;

// UTC, whole seconds, "Z" suffix.
std::string iso8601(SystemTime instant);
// The one ISO 8601 reader: "yyyy-MM-ddTHH:mm:ss", an optional fraction of any length
// (kept to the millisecond), then "Z" or "+hh:mm"/"-hh:mm". Nothing for a second of 60,
// an impossible date or offset, or an instant whose UTC year falls outside 0000-9999.
std::optional<MillisecondTime> parseIso8601Millis(std::string_view text);
// The same, for instants the system clock can hold (years 1678 to 2261); nothing beyond.
std::optional<SystemTime> parseIso8601(std::string_view text);

// "en_US_POSIX"-style readable date for sentences: "Nov 22, 2026 at 9:04:05 PM" (UTC).
std::string readableDate(SystemTime instant);

// A random (version 4) UUID, upper-case hex: "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
std::string makeUuid();
// True for 8-4-4-4-12 hex digits in either case.
bool isUuid(std::string_view text);

} // namespace plim
