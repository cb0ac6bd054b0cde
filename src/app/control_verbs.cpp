#include "app/control_verbs.h"

#include <algorithm>

namespace plim {

namespace {

constexpr ShortcutVerb verbs[] = {
    {"--toggle", "toggle", "Start a recording with the last settings, or stop the one rolling"},
    {"--stop", "stop", "Stop the recording"},
    {"--pause", "pause", "Pause or resume the recording"},
    {"--mark", "mark", "Set a mark in the recording"},
    {"--record-area", "record-area", "Pick an area of the screen, then record it"},
    {"--show", "show", "Show the library"},
};

} // namespace

std::span<const ShortcutVerb> controlVerbs() { return verbs; }

std::optional<std::string> requestedAction(const std::vector<std::string>& argv)
{
    for (size_t i = 1; i < argv.size(); ++i)
        for (const auto& verb : verbs)
            if (argv[i] == verb.option)
                return std::string(verb.action);
    return std::nullopt;
}

const ShortcutVerb* controlVerb(const std::string& action)
{
    auto found = std::ranges::find_if(verbs, [&](const ShortcutVerb& v) { return action == v.action; });
    return found == std::end(verbs) ? nullptr : found;
}

} // namespace plim
