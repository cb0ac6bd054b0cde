#pragma once
// Voiceover takes left in the library's Voiceovers folder by a run that ended while it
// recorded them (a crash, a kill, a power loss) join their plims at the next start, each
// with the sentence that says what was kept. Runs at the start of plim and of plimctl
// voiceover, on the starting thread, before anything records.

#include <filesystem>
#include <string>
#include <vector>

namespace plim {

// One whole sentence for each take that was left behind: how much of it joined which plim
// and where, or why it could not and what to do. A take still being recorded by a running
// process is left alone, and so is one that cannot be read or placed (its note too).
std::vector<std::string> salvageVoiceoverTakes(const std::filesystem::path& libraryFolder);

} // namespace plim
