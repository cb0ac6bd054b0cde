#pragma once
// Where the library folder is: the user's videos folder and the plims subfolder in it.

#include <filesystem>
#include <string>

namespace plim {

namespace fs = std::filesystem;

struct StorageRoot {
    static constexpr const char* currentName = "Plim";
    static constexpr const char* legacyName = "Plims";

    fs::path movies;                          // the user's videos folder
    std::string plimsFolderName = currentName; // "Plims" while the legacy folder is still the library

    // movies/plimsFolderName.
    fs::path folder() const { return movies / plimsFolderName; }
    fs::path legacyFolder() const { return movies / legacyName; }
    fs::path currentFolder() const { return movies / currentName; }

    // The XDG videos folder, else home/Videos (logged); the folder name follows
    // PlimsFolderMove::legacyIsTheLibrary.
    static StorageRoot direct(const fs::path& home);

    bool operator==(const StorageRoot&) const = default;
};

} // namespace plim
