#pragma once
// The identities of every plim in the library folder, reconciled: absent ones minted,
// corrupt ones replaced, duplicates given new ids, and renamed footage reported.

#include "library/plim_identity.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace plim {

struct PlimIdentityIndex {
    // An identity minted before its movie was created.
    struct Mismatch {
        SystemTime mintedAt;
        SystemTime movieCreatedAt;
        std::string movie; // the movie's file name
        bool operator==(const Mismatch&) const = default;
    };

    // Why a plim was given a new identity.
    struct Repair {
        enum class Kind { corrupt, absent, duplicate };
        Kind kind = Kind::absent;
        std::string text; // corrupt: why the old file was not an id
        bool operator==(const Repair&) const = default;
    };

    struct Report {
        std::vector<std::string> minted;                            // base names, in library order
        std::map<std::string, std::string> replaced;                // base name -> reason
        std::map<std::string, std::vector<std::string>> conflicted; // UUID -> base names that carried it
        std::map<std::string, std::string> unresolved;              // base name -> reason
        std::map<std::string, Mismatch> mismatched;                 // base name -> dates

        bool empty() const;
        // One sentence per entry: minted, replaced, conflicted, unresolved, mismatched.
        std::vector<std::string> sentences() const;
        bool operator==(const Report&) const = default;
    };

    std::map<std::string, std::string> basesByUUID;
    std::map<std::string, std::string> uuidsByBase;
    Report report;

    // For the file names of the raw movies in `folder` (B.mov, B.mp4), in library order;
    // each is known by its base name B. A base name given twice counts once.
    static PlimIdentityIndex reconcile(const std::vector<std::string>& movies, const fs::path& folder,
        SystemTime now = std::chrono::system_clock::now());

    // The name that keeps a shared id: the first name that every other name contains,
    // else the first name.
    static std::optional<std::string> original(const std::vector<std::string>& names);

    std::optional<std::string> uuid(const std::string& base) const;
    std::optional<std::string> base(const std::string& uuid) const;

    bool operator==(const PlimIdentityIndex&) const = default;
};

} // namespace plim
