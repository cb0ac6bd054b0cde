#pragma once
// A made-up plim for trying Plim without recording: two minutes of pointer motion with
// clicks in clusters, a typing burst and idle stretches, written as side files.

#include "base/error.h"

#include <filesystem>

namespace plim {

// Writes <folder>/Demo.cursor.json and Demo.keys.json (the folder is created) and
// returns the movie path the side files belong to. Existing side files are replaced.
Result<std::filesystem::path> writeDemoPlim(const std::filesystem::path& folder);

} // namespace plim
