#include "base/places.h"

#include <cstdlib>
#include <fstream>
#include <pwd.h>
#include <string>
#include <unistd.h>

namespace plim {

static std::optional<std::string> envPath(const char* name)
{
    const char* value = std::getenv(name);
    if (!value || !*value || value[0] != '/')
        return std::nullopt;
    return std::string(value);
}

fs::path Places::home()
{
    if (auto home = envPath("HOME"))
        return *home;
    if (passwd* entry = getpwuid(getuid()); entry && entry->pw_dir)
        return entry->pw_dir;
    return "/";
}

fs::path Places::dataHome() { return envPath("XDG_DATA_HOME").value_or((home() / ".local/share").string()); }
fs::path Places::configHome() { return envPath("XDG_CONFIG_HOME").value_or((home() / ".config").string()); }
fs::path Places::cacheHome() { return envPath("XDG_CACHE_HOME").value_or((home() / ".cache").string()); }
fs::path Places::settingsFile() { return configHome() / "plim" / "settings.json"; }

// Expands a user-dirs.dirs value: "$HOME/Videos" or an absolute path.
static std::optional<fs::path> expandUserDir(std::string value)
{
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
        value = value.substr(1, value.size() - 2);
    if (value.rfind("$HOME", 0) == 0) {
        std::string rest = value.substr(5);
        while (!rest.empty() && rest.front() == '/')
            rest.erase(0, 1);
        fs::path out = Places::home() / rest;
        // "$HOME/" alone means the home folder itself, which XDG treats as unset.
        if (rest.empty())
            return std::nullopt;
        return out;
    }
    if (!value.empty() && value.front() == '/')
        return fs::path(value);
    return std::nullopt;
}

std::optional<fs::path> Places::videosDir()
{
    if (const char* direct = std::getenv("XDG_VIDEOS_DIR"); direct && *direct)
        return expandUserDir(direct);
    std::ifstream in(configHome() / "user-dirs.dirs");
    std::string line;
    while (std::getline(in, line)) {
        auto start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line[start] == '#')
            continue;
        line = line.substr(start);
        const std::string key = "XDG_VIDEOS_DIR=";
        if (line.rfind(key, 0) == 0)
            return expandUserDir(line.substr(key.size()));
    }
    return std::nullopt;
}

} // namespace plim
