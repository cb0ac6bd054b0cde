#pragma once
// plimctl: Plim's scriptable commands. Each command takes its own arguments (after the
// command name), writes results to `out` and progress and failures to `err`, and returns
// the exit status (0 or 1).

#include <iosfwd>
#include <string>
#include <vector>

namespace plim {

using CtlArgs = std::vector<std::string>;
using CtlCommandFunction = int (*)(const CtlArgs& args, std::ostream& out, std::ostream& err);

struct CtlCommand {
    const char* name;
    const char* summary;
    CtlCommandFunction run;
};

const std::vector<CtlCommand>& ctlCommands();

// Dispatches argv (program name first) to a command.
int plimctlMain(const std::vector<std::string>& argv, std::ostream& out, std::ostream& err);

// True when args ask for help ("--help" or "-h").
bool wantsHelp(const CtlArgs& args);

} // namespace plim
