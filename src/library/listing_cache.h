#pragma once
// What a listing learns about each movie that is dear to learn again (its length, which
// means opening the movie), kept between listings in one text file in the XDG cache
// folder. An entry is keyed by the movie's path, size and modification time, so a movie
// that changed in any way is opened again; entries of a folder's movies that are gone
// are dropped when that folder is listed and the cache saved.
//
// Threads: one thread uses an instance. Two processes saving at once each write the whole
// file atomically; the last one wins, and the other's entries are learned again.

#include "base/dates.h"
#include "base/error.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace plim {

namespace fs = std::filesystem;

class ListingCache {
public:
    struct Facts {
        double duration = 0; // seconds; 0 when the movie could not be opened
        int64_t bytes = 0;
        SystemTime createdAt{};
        bool operator==(const Facts&) const = default;
    };

    static fs::path defaultFile(); // $XDG_CACHE_HOME/plim/listing.txt

    // Reads the cache; a missing, unreadable or damaged file is an empty cache.
    explicit ListingCache(fs::path file = defaultFile());

    // The movie's facts: from the cache when its size and modification time still match,
    // else learned from the movie now. Nothing when the movie cannot be examined at all.
    std::optional<Facts> facts(const fs::path& movie);

    // Movies opened rather than found in the cache since this instance was made.
    int learned() const { return m_learned; }

    // Writes the cache when it changed, keeping of each folder that was looked at only the
    // movies looked at. The cache folder is made when missing.
    Status save();

private:
    struct Entry {
        int64_t modified = 0; // nanoseconds since the epoch
        Facts facts;
    };
    fs::path m_file;
    std::map<std::string, Entry> m_entries; // by movie path
    std::set<std::string> m_seen;
    std::set<fs::path> m_folders;
    int m_learned = 0;
    bool m_changed = false;
};

} // namespace plim
