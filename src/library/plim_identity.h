#pragma once
// A plim's permanent identity: a random UUID and the moment it was made, kept in
// B.id.json beside the movie B.mov so it survives renames of the plim.

#include "base/dates.h"
#include "base/error.h"
#include "base/json.h"

#include <filesystem>
#include <optional>
#include <string>

namespace plim {

namespace fs = std::filesystem;

struct PlimIdentity {
    static constexpr const char* suffix = "id.json";

    std::string uuid;                  // standard text form, upper-case
    std::optional<SystemTime> mintedAt; // whole seconds; nothing when the file's date was unreadable

    bool operator==(const PlimIdentity&) const = default;

    struct Reading;
    struct Outcome;

    // A fresh identity minted at `now`.
    static PlimIdentity make(SystemTime now = std::chrono::system_clock::now());

    // JSON object {"mintedAt", "uuid"}; decoding is lenient about mintedAt but needs a UUID.
    Json toJson() const;
    static std::expected<PlimIdentity, std::string> fromJson(const Json& json);

    static fs::path pathFor(const std::string& base, const fs::path& folder); // folder/B.id.json

    // Reads folder/B.id.json. Never changes the file.
    static Reading read(const std::string& base, const fs::path& folder);
    // Writes B.id.json beside the movie, atomically, keys sorted and pretty-printed.
    Status write(const fs::path& besideMovie) const;

    // Makes sure the movie has an identity: an existing one is kept, an absent or corrupt
    // file gets a new one (written and read back), and an unreadable one is left as it is.
    static Outcome ensure(const fs::path& movie, SystemTime now = std::chrono::system_clock::now());

    // Writes a new identity beside the movie and reads it back; the error is a whole sentence.
    static Result<PlimIdentity> mint(const fs::path& movie, SystemTime now = std::chrono::system_clock::now());
};

// What reading an identity file found.
struct PlimIdentity::Reading {
    enum class Kind { identity, corrupt, unreadable, absent };
    Kind kind = Kind::absent;
    PlimIdentity identity; // when kind is identity
    std::string reason;    // when corrupt or unreadable: a short clause

    static Reading found(PlimIdentity value) { return {Kind::identity, std::move(value), {}}; }
    static Reading corrupt(std::string why) { return {Kind::corrupt, {}, std::move(why)}; }
    static Reading unreadable(std::string why) { return {Kind::unreadable, {}, std::move(why)}; }
    static Reading absent() { return {}; }
    bool operator==(const Reading&) const = default;
};

// What ensuring an identity did.
struct PlimIdentity::Outcome {
    enum class Kind { existing, minted, replaced, failed };
    Kind kind = Kind::failed;
    std::string uuid;   // existing, minted, replaced
    std::string reason; // replaced: why the old file was not an id; failed: a whole sentence

    static Outcome existing(std::string id) { return {Kind::existing, std::move(id), {}}; }
    static Outcome minted(std::string id) { return {Kind::minted, std::move(id), {}}; }
    static Outcome replaced(std::string id, std::string why) { return {Kind::replaced, std::move(id), std::move(why)}; }
    static Outcome failed(std::string sentence) { return {Kind::failed, {}, std::move(sentence)}; }
    bool operator==(const Outcome&) const = default;
};

} // namespace plim
