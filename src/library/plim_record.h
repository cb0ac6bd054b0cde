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

// Suffixes of the files beside a raw movie B.mov: sidecarPath(movie, PlimFiles::cursor)
// is B.cursor.json.
namespace PlimFiles {
inline constexpr std::string_view camera = "camera.mov";
inline constexpr std::string_view staged = "staged.mov";
inline constexpr std::string_view cursor = "cursor.json";
inline constexpr std::string_view keys = "keys.json";
inline constexpr std::string_view edits = "edits.json";
inline constexpr std::string_view stage = "stage.json";
inline constexpr std::string_view rendered = "rendered.json";
inline constexpr std::string_view captions = "captions.json";
inline constexpr std::string_view thumbs = "thumbs.heic";
inline constexpr std::string_view identity = "id.json";
} // namespace PlimFiles

// When the file was created: its birth time where the filesystem keeps one, else its
// last modification. Nothing when the file cannot be examined.
std::optional<SystemTime> fileCreationDate(const fs::path& path);

} // namespace plim
