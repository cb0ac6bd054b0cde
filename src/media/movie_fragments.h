#pragma once
// The layout of a fragmented QuickTime movie as written by a recording (movie_writer.h): its
// boxes, to find where a movie cut off while it was being written stops being whole.

#include "base/error.h"

#include <cstdint>
#include <filesystem>
#include <optional>

namespace plim {

// Where the unfinished end of a cut-off fragmented movie begins: a fragment's header
// without its data, or a box cut short. Nothing when the movie ends on whole boxes, or when
// its boxes cannot be walked (then nobody should cut it). Fails with a short reason when the
// file cannot be read.
Result<std::optional<uint64_t>> unfinishedFragmentStart(const std::filesystem::path& movie);

} // namespace plim
