#pragma once
// The control verbs a desktop's own shortcut settings bind to (`plim --toggle`): the running
// application receives them as actions of the same name over the session bus.

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace plim {

struct ShortcutVerb {
    const char* option;      // "--toggle"
    const char* action;      // "toggle": the action's name on the session bus
    const char* description; // what it does, for the settings window and --help
};

// Every verb, in the order the settings window lists them.
std::span<const ShortcutVerb> controlVerbs();

// The action asked for by the command line: the first argument after the program's name
// that is a verb's option. Other arguments are left to others.
std::optional<std::string> requestedAction(const std::vector<std::string>& argv);

// The verb with this action name, or nothing.
const ShortcutVerb* controlVerb(const std::string& action);

} // namespace plim
