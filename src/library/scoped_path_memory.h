#pragma once
// Locations the user chose (an export folder, a file) remembered beyond a relaunch.
// Linux has no sandbox bookmarks, so a location is remembered by its path, as a string
// setting under its key, and a recall checks that the file or folder is still there.

#include "base/settings.h"

#include <filesystem>
#include <optional>
#include <string>

namespace plim {

namespace fs = std::filesystem;

class ScopedPathMemory {
public:
    enum class Kind { file, folder };

    struct Recall {
        enum class Outcome { at, lost, nothing };
        Outcome outcome = Outcome::nothing;
        Kind kind = Kind::folder;
        fs::path path;      // at, and lost when the stored path was usable
        std::string reason; // lost: why it cannot be used, a whole sentence

        static Recall at(fs::path where, Kind kind) { return {Outcome::at, kind, std::move(where), {}}; }
        static Recall lost(fs::path where, Kind kind, std::string why) { return {Outcome::lost, kind, std::move(where), std::move(why)}; }
        static Recall nothing() { return {}; }

        // What to tell the user about a lost location; nothing otherwise.
        std::optional<std::string> sentence() const;
        bool operator==(const Recall&) const = default;
    };

    explicit ScopedPathMemory(SettingsStore& defaults) : m_defaults(defaults) {}

    // Stores the path under `key`. When the store refuses, the sentence saying the choice
    // lasts only until Plim quits (also logged), of kind `failed`.
    Status remember(const fs::path& path, const std::string& key);
    Recall recall(const std::string& key, Kind kind) const;
    // Drops the remembered location; the store's sentence when it refuses.
    Status forget(const std::string& key);

    // The name sentences use: the last part of the path, or "the folder you picked".
    static std::string displayName(const fs::path& path, Kind kind);

private:
    SettingsStore& m_defaults;
};

} // namespace plim
