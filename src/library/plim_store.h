#pragma once
// The library as the user sees it: every plim in the library folder as a PlimRecord,
// newest first, with identities kept reconciled, identity files whose movie is gone
// tidied after a grace period, parked files from an interrupted publish moved to the
// Trash, and a watch on the folder that refreshes the list when files change.
//
// Threads: every public call may come from any thread; one lock guards the state. The
// watch runs on its own thread, refreshes there and then calls `onChange` on that thread
// (the interface hops to its own). Time for the grace period comes from the Clock given.

#include "base/clock.h"
#include "library/plim_identity_index.h"
#include "library/plim_record.h"

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace plim {

namespace fs = std::filesystem;

class PlimStore {
public:
    static constexpr double defaultStrandedIdentityGrace = 600; // seconds

    // One base name's movies while listing.
    struct MovieGroup {
        std::string display;             // the name shown
        bool displayIsRawMaster = false; // the raw movie is there
        std::optional<fs::path> raw, staged, camera;
        int64_t cameraBytes = 0;
        std::vector<fs::path> shadowed; // other raw movies with this base name, left out
    };

    explicit PlimStore(fs::path folder, const Clock& clock = UptimeClock::shared());
    ~PlimStore();
    PlimStore(const PlimStore&) = delete;
    PlimStore& operator=(const PlimStore&) = delete;

    // Reads the folder again and updates the list; see the comment at the top.
    void refresh();

    std::vector<PlimRecord> plims() const;
    PlimIdentityIndex identities() const;
    const fs::path& folder() const { return m_folder; }
    double strandedIdentityGrace = defaultStrandedIdentityGrace;

    // Sentences for the user raised since the last call (identity reports when they
    // change, identity files that could not be tidied, parked files moved to the Trash).
    std::vector<std::string> takeNotices();

    // How many times identities were reconciled (they are only when the folder's
    // movies or identity files changed).
    int reconcileCount() const;

    // Watches the folder with inotify; each burst of changes refreshes the list once and
    // then calls `onChange`. Fails with a sentence when the folder cannot be watched.
    Status startWatching(std::function<void()> onChange);
    void stopWatching();

    // Groups the movie files among `names` (sorted) by base name: "B.staged.mov" is B's
    // staged movie, "B.camera.mov" its camera, any other movie its raw movie. Names
    // holding "partial" are renders in progress and never listed. Two raw movies with one
    // base name (B.mov, B.mp4) would share every side file, so only one is the plim:
    // B.mov when there is one, else the first by name; the others are `shadowed`.
    static std::map<std::string, MovieGroup> groupMovies(const std::vector<std::string>& names, const fs::path& folder);
    static bool isMovieName(const std::string& name);

private:
    void refreshLocked();
    void tidyStranded(const std::set<std::string>& names, const std::set<std::string>& rawBases);
    void moveParked(const std::vector<std::string>& names);

    fs::path m_folder;
    const Clock& m_clock;
    mutable std::mutex m_lock;
    std::vector<PlimRecord> m_plims;
    PlimIdentityIndex m_identities;
    std::vector<std::string> m_lastSaidIdentityReport;
    std::vector<std::string> m_lastSaidShadowed;
    std::optional<std::set<std::string>> m_lastIdentityFingerprint;
    std::map<std::string, double> m_strandedSince; // base name -> uptime first seen
    std::vector<std::string> m_notices;
    int m_reconciles = 0;

    struct Watch;
    std::unique_ptr<Watch> m_watch;
};

} // namespace plim
