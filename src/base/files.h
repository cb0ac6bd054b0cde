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

// Why a file could not be read.
enum class ReadFailure { absent, unreadable };

struct FileReadError {
    ReadFailure kind;
    std::string reason; // strerror-style text, e.g. "Permission denied"
};

std::expected<std::string, FileReadError> readFileBytes(const fs::path& path);

// Writes through a temporary file in the same folder, flushed and renamed over `path`.
// On failure nothing at `path` changes and the temporary file is removed.
Status writeFileAtomic(const fs::path& path, std::string_view bytes);

// The movie's location with its extension replaced by `suffix` ("cursor.json"):
// /x/B.mov + "cursor.json" -> /x/B.cursor.json.
fs::path sidecarPath(const fs::path& movie, std::string_view suffix);

// The movie's file name without its extension ("B" for B.mov).
std::string baseName(const fs::path& movie);

// The path as text without its last extension (/x/B for /x/B.mov), as sentences name it.
std::string pathWithoutExtension(const fs::path& path);

// errno as the system describes it.
std::string errnoText(int err);

} // namespace plim
