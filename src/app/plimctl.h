#pragma once
// plimctl: Plim's scriptable commands. Each command takes its own arguments (after the
// command name), writes results to `out` and progress and failures to `err`, and returns
// the exit status (0 or 1).

#include "base/error.h"

#include <iosfwd>
#include <map>
#include <optional>
#include <set>
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

// A command's arguments: "--name value", "--name=value", bare flags, "--" ending the
// options, and positional arguments in order.
struct CtlOptions {
    std::map<std::string, std::vector<std::string>> values;
    std::set<std::string> flags;
    std::vector<std::string> positional;
    bool help = false;

    std::optional<std::string> last(const std::string& name) const;
    bool has(const std::string& flag) const { return flags.contains(flag); }
};

// Fails with a sentence naming the command for an unknown option or a missing value.
Result<CtlOptions> parseCtlOptions(const CtlArgs& args, const std::set<std::string>& valueOptions,
    const std::set<std::string>& flagOptions, const std::string& command);

// A number of seconds written whole ("4.5"), finite; nothing for any other text.
std::optional<double> parseSeconds(const std::string& text);

} // namespace plim
