#pragma once
// A plim's permanent identity: a random UUID and the moment it was made, kept in
// B.id.json beside the movie B.mov so it survives renames of the plim.

#include "base/dates.h"
#include "base/error.h"
#include "base/files.h"
#include "base/json_fwd.h"
#include "library/plim_record.h"

#include <filesystem>
#include <optional>
#include <string>

namespace plim {

namespace fs = std::filesystem;

struct PlimIdentity {
    static constexpr std::string_view suffix = PlimFiles::identity;

    std::string uuid;                  // standard text form, upper-case
    std::optional<SystemTime> mintedAt; // whole seconds; nothing when the file's date was unreadable

    bool operator==(const PlimIdentity&) const = default;

    struct Ensured;

    // A fresh identity minted at `now`.
    static PlimIdentity make(SystemTime now = std::chrono::system_clock::now());

    // JSON object {"mintedAt", "uuid"}; decoding is lenient about mintedAt but needs a UUID.
    Json toJson() const;
    // Errors are `corrupt` with a short clause ("it has no uuid").
    static Result<PlimIdentity> fromJson(const Json& json);

    static fs::path pathFor(const std::string& base, const fs::path& folder); // folder/B.id.json

    // Reads folder/B.id.json, never changing it. Errors tell the readings apart: `missing`,
    // `unreadable` (left alone) or `corrupt` (may be replaced), each with a short clause.
    static Result<PlimIdentity> read(const std::string& base, const fs::path& folder);
    // Writes B.id.json beside the movie, atomically, keys sorted and pretty-printed.
    Status write(const fs::path& besideMovie) const;

    // Makes sure the movie has an identity: an existing one is kept, an absent or corrupt
    // file gets a new one (written and read back), and an unreadable one is left as it is
    // and fails with a whole sentence.
    static Result<Ensured> ensure(const fs::path& movie, SystemTime now = std::chrono::system_clock::now());

    // Writes a new identity beside the movie and reads it back; the error is a whole sentence.
    static Result<PlimIdentity> mint(const fs::path& movie, SystemTime now = std::chrono::system_clock::now());
};

// What ensuring an identity did.
struct PlimIdentity::Ensured {
    enum class Kind { existing, minted, replaced };
    Kind kind = Kind::existing;
    std::string uuid;
    std::string replacedBecause; // replaced: why the old file was not an id

    static Ensured existing(std::string id) { return {Kind::existing, std::move(id), {}}; }
    static Ensured minted(std::string id) { return {Kind::minted, std::move(id), {}}; }
    static Ensured replaced(std::string id, std::string why) { return {Kind::replaced, std::move(id), std::move(why)}; }
    bool operator==(const Ensured&) const = default;
};

} // namespace plim
