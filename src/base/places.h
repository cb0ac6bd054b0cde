#pragma once
// The XDG places Plim keeps its files in. Each honours its usual environment variable,
// so tests point them at temporary folders.

#include <filesystem>
#include <optional>

namespace plim {

namespace fs = std::filesystem;

struct Places {
    static fs::path home();        // $HOME, else the password database's entry
    static fs::path dataHome();    // $XDG_DATA_HOME, else ~/.local/share
    static fs::path configHome();  // $XDG_CONFIG_HOME, else ~/.config
    static fs::path cacheHome();   // $XDG_CACHE_HOME, else ~/.cache
    // The videos folder named by XDG_VIDEOS_DIR in $XDG_CONFIG_HOME/user-dirs.dirs (or the
    // environment); nothing when neither names one.
    static std::optional<fs::path> videosDir();
    static fs::path settingsFile(); // configHome()/plim/settings.json
};

} // namespace plim
