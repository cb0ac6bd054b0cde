#pragma once
// Recordings cut off by a kill or a power loss, found by the marker a recording keeps beside
// its movie while it rolls (capture/recording_marker.h), are made normal plims again: the
// movie plays up to its last whole fragment as it is, and what is missing beside it (the
// pointer track from its journal, the identity) is written. Runs at the start of plim and of
// plimctl record, on the starting thread, before anything records.

#include <filesystem>
#include <string>
#include <vector>

namespace plim {

// One whole sentence for each abandoned recording in the folder (not its subfolders): what
// was saved and what was lost, or why it could not be recovered and what to do. A recording
// whose process still runs is left alone, and so is everything of one that cannot be
// recovered; a recovered one loses its marker.
std::vector<std::string> recoverAbandonedRecordings(const std::filesystem::path& libraryFolder);

} // namespace plim
