#pragma once
// One plim as the library lists it, the names of the files that make up a plim, and
// the creation date of a file as the library reads it.

#include "base/dates.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace plim {

namespace fs = std::filesystem;

struct PlimRecord {
    std::string id;                      // the base name
    std::optional<std::string> identity; // the permanent UUID, when known
    std::optional<fs::path> rawURL;      // B.mov
    std::optional<fs::path> stagedURL;   // B.staged.mov
    bool hasCursorTrack = false;         // B.cursor.json exists
    SystemTime createdAt{};
    int64_t rawBytes = 0;
    int64_t stagedBytes = 0;
    std::optional<fs::path> cameraURL;   // B.camera.mov
    int64_t cameraBytes = 0;

    bool operator==(const PlimRecord&) const = default;
};

// When the file was created: its birth time where the filesystem keeps one, else its
// last modification. Nothing when the file cannot be examined.
std::optional<SystemTime> fileCreationDate(const fs::path& path);

} // namespace plim
