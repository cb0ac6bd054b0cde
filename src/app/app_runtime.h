#pragma once
// Facts about the running process.

#include <optional>
#include <string>
#include <vector>

namespace plim {

inline constexpr const char* applicationId = "app.plim.Plim";
inline constexpr const char* applicationName = "Plim";

namespace AppRuntime {

// The running executable's path (resolved through /proc/self/exe).
std::string executablePath();

// True when the running executable is the installed one: it lives in the install
// prefix's bin folder. A build-tree binary is not.
bool isBundledApp();
bool isBundledExecutable(const std::string& executable, const std::string& installPrefix);

// Why automatic updates must not run in this process, or nothing. Linux has no
// self-updater, but the reason is still computed and logged at start-up.
std::optional<std::string> updaterHold(const std::vector<std::string>& arguments);
std::optional<std::string> updaterHold(bool renderRequested, bool bundled, const std::string& executable);

// Called first thing in main: allocations of a megabyte or more (pictures: 8 MB at 1080p,
// 30 MB at 4K) are mapped and unmapped on their own instead of staying in the per-thread
// heap arenas that keep what they freed. A 4K share of the demo peaked 68 MB lower.
void keepPicturesOutOfTheHeap();

} // namespace AppRuntime

} // namespace plim
