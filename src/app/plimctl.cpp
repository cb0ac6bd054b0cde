#include "app/plimctl.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ostream>

namespace plim {

std::optional<std::string> CtlOptions::last(const std::string& name) const
{
    auto it = values.find(name);
    if (it == values.end() || it->second.empty())
        return std::nullopt;
    return it->second.back();
}

std::optional<double> parseSeconds(const std::string& text)
{
    double value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

Result<CtlOptions> parseCtlOptions(const CtlArgs& args, const std::set<std::string>& valueOptions,
    const std::set<std::string>& flagOptions, const std::string& command)
{
    CtlOptions parsed;
    bool optionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || !arg.starts_with("--") || arg == "--") {
            if (arg == "--" && !optionsEnded)
                optionsEnded = true;
            else if (arg == "-h" && !optionsEnded)
                parsed.help = true;
            else
                parsed.positional.push_back(arg);
            continue;
        }
        std::string name = arg;
        std::optional<std::string> value;
        if (size_t eq = arg.find('='); eq != std::string::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
        }
        if (name == "--help") {
            parsed.help = true;
        } else if (valueOptions.contains(name)) {
            if (!value) {
                if (i + 1 >= args.size())
                    return fail("The option " + name + " needs a value; nothing was done. Run plimctl " + command
                        + " --help to see the options.");
                value = args[++i];
            }
            parsed.values[name].push_back(*value);
        } else if (flagOptions.contains(name) && !value) {
            parsed.flags.insert(name);
        } else {
            return fail("plimctl " + command + " has no option \"" + arg + "\"; nothing was done. Run plimctl "
                + command + " --help to see the options.");
        }
    }
    return parsed;
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
