#pragma once
// Process start for `plim`: a headless render when the command line asks for one,
// otherwise the interactive application's start-up steps.

#include <iosfwd>
#include <string>
#include <vector>

namespace plim {

int plimMain(const std::vector<std::string>& argv, std::ostream& out, std::ostream& err);

// The interactive start-up steps that run before any window: the one-time library-folder
// move (installed application only) and the updater-hold log line.
void runStartupSteps(const std::vector<std::string>& argv);

} // namespace plim
