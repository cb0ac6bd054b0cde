#pragma once
// Process start for `plim`: a headless render when the command line asks for one,
// otherwise the interactive application's start-up steps.

#include <iosfwd>
#include <string>
#include <vector>

namespace plim {

// The desktop application's entry, given by the interface when it is part of the build;
// returns the process exit status.
using InteractiveMain = int (*)(const std::vector<std::string>& argv);

// A headless render when the command line asks for one; otherwise the start-up steps and
// then `interactive`, or a sentence saying the desktop interface is not in this build.
int plimMain(const std::vector<std::string>& argv, std::ostream& out, std::ostream& err,
    InteractiveMain interactive = nullptr);

// The interactive start-up steps that run before any window: the one-time library-folder
// move (installed application only) and the updater-hold log line.
void runStartupSteps(const std::vector<std::string>& argv);

} // namespace plim
