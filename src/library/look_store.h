#pragma once
// The saved looks: one file "looks.json" in Plim's data folder holding the looks the user
// named and the look new plims wear. A file that cannot be read is never overwritten by
// loading: the store keeps a loadProblem sentence, shows no saved looks, and replaces the
// file only on the next save.

#include "base/error.h"
#include "base/json.h"
#include "library/plim_look.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace plim {

class LookStore {
public:
    static constexpr int64_t currentVersion = 1;

    struct SavedLook {
        std::string name;
        PlimLook look;
        bool operator==(const SavedLook&) const = default;
    };

    // Places::dataHome()/"plim"/"looks.json".
    static fs::path defaultFile();
    // Plim's own copies of the backdrop pictures a user picked, beside the looks file, so
    // a stage look names no file outside Plim's folders.
    static fs::path backdropsFolder();
    // Copies a picture picked anywhere into backdropsFolder(), named by its bytes (picking
    // it again reuses the copy), and returns the copy; a picture already there is returned
    // as it is. The picked file is only read. Fails with a sentence when it cannot be read
    // or copied.
    static Result<fs::path> keepBackdropPicture(const fs::path& picked);
    // A backdrop picture a stage look beside a plim names: inside `plimFolder`, or one of
    // Plim's own copies. Fails `refused` for anything else (see fileInsideFolder).
    static Result<fs::path> backdropPictureFor(const fs::path& plimFolder, const std::string& named);

    // Reads the file (absent is an empty store, not a problem).
    explicit LookStore(fs::path file = defaultFile());

    const fs::path& file() const { return m_file; }
    const std::vector<SavedLook>& saved() const { return m_saved; }
    const std::optional<PlimLook>& newPlimLook() const { return m_newPlimLook; }
    const std::optional<std::string>& loadProblem() const { return m_loadProblem; }
    std::optional<PlimLook> look(const std::string& name) const;

    // Each change is written at once; on failure nothing in memory changes and the
    // sentence says why. A name is trimmed and must not be empty; saving under an
    // existing name replaces that look.
    Status save(const std::string& name, const PlimLook& look);
    Status remove(const std::string& name);
    Status rename(const std::string& from, const std::string& to);
    Status setNewPlimLook(std::optional<PlimLook> look);

    // Reads the file again, dropping unsaved state.
    void reload();

private:
    Status write(const std::vector<SavedLook>& saved, const std::optional<PlimLook>& newLook, bool newLookChosen);

    fs::path m_file;
    std::vector<SavedLook> m_saved;
    std::optional<PlimLook> m_newPlimLook;
    std::optional<std::string> m_loadProblem;
    // Entries of "saved" that did not decode, and top-level keys this version does not
    // know: written back as they were.
    std::vector<Json> m_keptEntries;
    Json m_unknownKeys = Json::object();
};

} // namespace plim
