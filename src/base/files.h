#pragma once
// Plain file helpers: whole-file reads that tell absent from unreadable, atomic writes,
// and the sidecar naming every plim file follows.

#include "base/error.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace plim {

namespace fs = std::filesystem;

// The most a side file (tracks, edits, looks, settings) can honestly hold: a day of
// pointer samples is under a gigabyte.
inline constexpr size_t maxSideFileBytes = size_t(1) << 30;

// Reads a whole ordinary file, never blocking on a pipe or a device. Fails `missing`
// when nothing is there, otherwise `unreadable` (no permission, a folder, a pipe or
// device, more than `limit` bytes). The error's sentence is a short reason that callers
// put in brackets inside their own sentence: "Permission denied", "it is a folder".
Result<std::string> readFileBytes(const fs::path& path, size_t limit = maxSideFileBytes);

// Opens an existing file for reading only when it is an ordinary file, never blocking on a
// pipe or a device: the descriptor (close it), or `missing` when nothing is there and
// `unreadable` with a short reason otherwise ("it is a folder, not a file", "it is not
// an ordinary file" for a pipe or a device, "Permission denied").
Result<int> openOrdinaryFile(const fs::path& path);

// The same check without keeping the file open, for readers that open it themselves.
Status checkOrdinaryFile(const fs::path& path);

// An ordinary file of a size a side file can have (not a folder, pipe, device or giant),
// following links; false when it cannot be looked at.
bool isOrdinaryFile(const fs::path& path, size_t limit = maxSideFileBytes);

// Writes through a temporary file in the same folder, flushed and renamed over `path`.
// On failure nothing at `path` changes and the temporary file is removed.
Status writeFileAtomic(const fs::path& path, std::string_view bytes);

// The movie's location with its extension replaced by `suffix` ("cursor.json"):
// /x/B.mov + "cursor.json" -> /x/B.cursor.json.
fs::path sidecarPath(const fs::path& movie, std::string_view suffix);

// Suffixes of the files beside a raw movie B.mov: sidecarPath(movie, PlimFiles::cursor)
// is B.cursor.json.
namespace PlimFiles {
inline constexpr std::string_view camera = "camera.mov";
inline constexpr std::string_view staged = "staged.mov";
inline constexpr std::string_view reframed = "reframe.mp4";
inline constexpr std::string_view cursor = "cursor.json";
inline constexpr std::string_view cursorJournal = "cursor.journal";
inline constexpr std::string_view keys = "keys.json";
inline constexpr std::string_view edits = "edits.json";
inline constexpr std::string_view stage = "stage.json";
inline constexpr std::string_view rendered = "rendered.json";
inline constexpr std::string_view captions = "captions.json";
inline constexpr std::string_view thumbs = "thumbs.heic";
inline constexpr std::string_view identity = "id.json";
} // namespace PlimFiles

// The movie's file name without its extension ("B" for B.mov).
std::string baseName(const fs::path& movie);

// The path as text without its last extension (/x/B for /x/B.mov), as sentences name it.
std::string pathWithoutExtension(const fs::path& path);

// errno as the system describes it.
std::string errnoText(int err);

} // namespace plim
