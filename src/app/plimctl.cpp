#include "app/plimctl.h"

#include <algorithm>
#include <ostream>

namespace plim {

bool wantsHelp(const CtlArgs& args)
{
    return std::any_of(args.begin(), args.end(), [](const std::string& a) { return a == "--help" || a == "-h"; });
}

static void printUsage(std::ostream& out)
{
    out << "usage: plimctl <command> [options]\n\n"
           "Plim's scriptable commands. Each command takes --help.\n\n"
           "commands:\n";
    for (auto& command : ctlCommands()) {
        std::string name = command.name;
        out << "  " << name << std::string(name.size() < 10 ? 10 - name.size() : 1, ' ') << command.summary << "\n";
    }
}

int plimctlMain(const std::vector<std::string>& argv, std::ostream& out, std::ostream& err)
{
    if (argv.size() < 2) {
        printUsage(err);
        return 1;
    }
    const std::string& name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        printUsage(out);
        return 0;
    }
    for (auto& command : ctlCommands()) {
        if (name == command.name)
            return command.run(CtlArgs(argv.begin() + 2, argv.end()), out, err);
    }
    err << "plimctl: there is no command \"" << name << "\". Run plimctl --help to see the commands.\n";
    return 1;
}

} // namespace plim
