#pragma once
// The user's Trash, in the freedesktop.org Trash layout: the file moves
// to $XDG_DATA_HOME/Trash/files and a .trashinfo beside it in Trash/info records where it
// came from (Path=, percent-encoded) and when (DeletionDate=, local time), so the file
// manager can put it back. Nothing is ever deleted here.

#include "base/error.h"

#include <filesystem>

namespace plim {

namespace fs = std::filesystem;

// $XDG_DATA_HOME/Trash.
fs::path homeTrash();

// Moves `path` (a file or a folder) to the Trash and returns where it now lies. A name
// already in the Trash gets " 2", " 3"... before its extension. On failure the file is
// where it was and the error is a short lower-case reason ("Permission denied", "it is not
// there any more") for the caller's own sentence.
Result<fs::path> moveToTrash(const fs::path& path);

} // namespace plim
