#include "library/plim_store.h"

#include "base/files.h"
#include "base/log.h"
#include "base/text.h"
#include "base/trash.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>

namespace plim {

namespace {

constexpr std::string_view stagedTag = ".staged";
constexpr std::string_view cameraTag = ".camera";
constexpr std::string_view identityEnd = ".id.json";

bool endsWith(std::string_view text, std::string_view end)
{
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

int64_t sizeOf(const std::optional<fs::path>& path)
{
    std::error_code error;
    if (!path)
        return 0;
    auto bytes = fs::file_size(*path, error);
    return error ? 0 : static_cast<int64_t>(bytes);
}


} // namespace

struct PlimStore::Watch {
    int inotify = -1;
    int wake = -1;
    std::thread thread;
    ~Watch()
    {
        if (thread.joinable()) {
            uint64_t one = 1;
            [[maybe_unused]] auto n = ::write(wake, &one, sizeof one);
            thread.join();
        }
        if (inotify >= 0)
            ::close(inotify);
        if (wake >= 0)
            ::close(wake);
    }
};

PlimStore::PlimStore(fs::path folder, const Clock& clock) : m_folder(std::move(folder)), m_clock(clock) {}

PlimStore::~PlimStore() { stopWatching(); }

bool PlimStore::isMovieName(const std::string& name)
{
    std::string extension = fs::path(name).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(), [](unsigned char c) { return std::tolower(c); });
    return extension == ".mov" || extension == ".mp4" || extension == ".m4v";
}

std::map<std::string, PlimStore::MovieGroup> PlimStore::groupMovies(const std::vector<std::string>& names, const fs::path& folder)
{
    std::map<std::string, MovieGroup> groups;
    for (const std::string& name : names) {
        if (!isMovieName(name) || name.find("partial") != std::string::npos)
            continue;
        const std::string stem = fs::path(name).stem().string();
        if (endsWith(stem, stagedTag)) {
            groups[stem.substr(0, stem.size() - stagedTag.size())].staged = folder / name;
        } else if (endsWith(stem, cameraTag)) {
            MovieGroup& group = groups[stem.substr(0, stem.size() - cameraTag.size())];
            group.camera = folder / name;
            group.cameraBytes = sizeOf(group.camera);
        } else {
            MovieGroup& group = groups[stem];
            const fs::path movie = folder / name;
            if (!group.raw) {
                group.raw = movie;
            } else if (movie.extension() == ".mov" && group.raw->extension() != ".mov") {
                group.shadowed.push_back(*group.raw);
                group.raw = movie;
            } else {
                group.shadowed.push_back(movie);
            }
        }
    }
    for (auto& [base, group] : groups) {
        group.displayIsRawMaster = group.raw.has_value();
        group.display = base;
    }
    return groups;
}

void PlimStore::refresh()
{
    std::lock_guard lock(m_lock);
    refreshLocked();
}

void PlimStore::refreshLocked()
{
    // 1. The folder's names in plain text order.
    std::vector<std::string> names;
    std::error_code error;
    fs::directory_iterator it(m_folder, error);
    for (; !error && it != fs::directory_iterator(); it.increment(error))
        names.push_back(it->path().filename().string());
    if (error) {
        logLine("Plim: could not read the plims folder at " + m_folder.string());
        return;
    }
    std::sort(names.begin(), names.end());

    moveParked(names);

    // 2-3. One record per group that has a movie to play.
    std::vector<PlimRecord> records;
    std::vector<std::string> rawBases;
    std::vector<std::string> shadowed;
    for (auto& [base, group] : groupMovies(names, m_folder)) {
        for (const fs::path& other : group.shadowed)
            shadowed.push_back(quoted(other.filename().string()) + " has the same name as " + quoted(group.raw->filename().string())
                + ", so the two would share their edits, tracks and permanent id; the library lists "
                + quoted(group.raw->filename().string()) + " and leaves " + quoted(other.filename().string())
                + " out. Nothing was changed or lost: rename " + quoted(other.filename().string())
                + " (to " + quoted(base + " 2" + other.extension().string()) + ", for example) and it is listed as a plim of its own.");
        if (!group.raw && !group.staged)
            continue; // a camera movie alone is not a plim
        PlimRecord record;
        record.id = base;
        record.rawURL = group.raw;
        record.stagedURL = group.staged;
        record.cameraURL = group.camera;
        record.cameraBytes = group.cameraBytes;
        record.hasCursorTrack = fs::exists(m_folder / (base + "." + std::string(PlimFiles::cursor)), error);
        record.rawBytes = sizeOf(group.raw);
        record.stagedBytes = sizeOf(group.staged);
        record.createdAt = fileCreationDate(group.raw ? *group.raw : *group.staged).value_or(SystemTime{});
        if (group.raw)
            rawBases.push_back(base);
        records.push_back(std::move(record));
    }
    // 4. Newest first; equal dates keep name order.
    std::stable_sort(records.begin(), records.end(), [](const PlimRecord& a, const PlimRecord& b) { return a.createdAt > b.createdAt; });

    // 5. Identities, only when the movies or identity files changed.
    std::set<std::string> fingerprint;
    for (const std::string& name : names)
        if ((isMovieName(name) && name.find("partial") == std::string::npos) || endsWith(name, identityEnd))
            fingerprint.insert(name);
    if (fingerprint != m_lastIdentityFingerprint) {
        std::vector<std::string> ordered;
        for (const PlimRecord& record : records)
            if (record.rawURL)
                ordered.push_back(record.rawURL->filename().string());
        m_identities = PlimIdentityIndex::reconcile(ordered, m_folder);
        ++m_reconciles;
        // Minting wrote identity files; what the folder now holds is the fingerprint.
        for (const std::string& base : m_identities.report.minted)
            fingerprint.insert(base + std::string(identityEnd));
        m_lastIdentityFingerprint = fingerprint;
        std::vector<std::string> said = m_identities.report.sentences();
        if (said != m_lastSaidIdentityReport) {
            m_notices.insert(m_notices.end(), said.begin(), said.end());
            m_lastSaidIdentityReport = said;
        }
    }
    for (PlimRecord& record : records)
        record.identity = m_identities.uuid(record.id);

    if (shadowed != m_lastSaidShadowed) {
        m_notices.insert(m_notices.end(), shadowed.begin(), shadowed.end());
        m_lastSaidShadowed = shadowed;
    }

    // 6. Identity files whose movie is gone.
    tidyStranded(fingerprint, {rawBases.begin(), rawBases.end()});
    m_plims = std::move(records);
}

void PlimStore::tidyStranded(const std::set<std::string>& names, const std::set<std::string>& rawBases)
{
    const double now = m_clock.uptime();
    std::map<std::string, double> stillStranded;
    for (const std::string& name : names) {
        if (!endsWith(name, identityEnd))
            continue;
        const std::string base = name.substr(0, name.size() - identityEnd.size());
        if (rawBases.contains(base))
            continue;
        auto seen = m_strandedSince.find(base);
        const double since = seen == m_strandedSince.end() ? now : seen->second;
        if (now - since < strandedIdentityGrace) {
            stillStranded[base] = since;
            continue;
        }
        std::error_code error;
        if (!fs::remove(m_folder / name, error) && error) {
            m_notices.push_back(quoted(name) + " belongs to no plim and could not be removed (" + error.message() + ").");
            stillStranded[base] = since;
        } else {
            logLine("Plim: removed " + quoted(name) + ", which had belonged to no plim for " + std::to_string(static_cast<long long>(now - since)) + " s");
            m_lastIdentityFingerprint.reset(); // the folder changed under the index
        }
    }
    m_strandedSince = std::move(stillStranded);
}

void PlimStore::moveParked(const std::vector<std::string>& names)
{
    for (const std::string& name : names) {
        // Only the exact names a publish parks a movie under, and only plain files.
        std::error_code error;
        if (!isParkedName(name) || !isMovieName(name) || !fs::is_regular_file(fs::symlink_status(m_folder / name, error)))
            continue;
        if (moveToTrash(m_folder / name)) {
            m_notices.push_back(quoted(name) + " is a finished file a publish left parked (the render that was replacing it "
                "never landed), so it was moved to the Trash rather than deleted.");
        } else {
            logLine("Plim: could not move the parked file " + quoted(name) + ". It was left where it is.");
        }
    }
}

std::vector<PlimRecord> PlimStore::plims() const
{
    std::lock_guard lock(m_lock);
    return m_plims;
}

PlimIdentityIndex PlimStore::identities() const
{
    std::lock_guard lock(m_lock);
    return m_identities;
}

std::vector<std::string> PlimStore::takeNotices()
{
    std::lock_guard lock(m_lock);
    return std::exchange(m_notices, {});
}

int PlimStore::reconcileCount() const
{
    std::lock_guard lock(m_lock);
    return m_reconciles;
}

Status PlimStore::startWatching(std::function<void()> onChange)
{
    stopWatching();
    auto watch = std::make_unique<Watch>();
    watch->inotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    watch->wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (watch->inotify < 0 || watch->wake < 0)
        return fail("Plim cannot watch the plims folder for changes (" + errnoText(errno) + "). The list refreshes when you open it again.");
    if (::inotify_add_watch(watch->inotify, m_folder.c_str(),
            IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF) < 0)
        return fail("Plim cannot watch the plims folder at " + m_folder.string() + " (" + errnoText(errno)
            + "). The list refreshes when you open it again.");
    const int inotifyFd = watch->inotify;
    const int wakeFd = watch->wake;
    watch->thread = std::thread([this, inotifyFd, wakeFd, onChange = std::move(onChange)] {
        char buffer[16 * 1024];
        for (;;) {
            pollfd fds[2] = {{inotifyFd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 && errno != EINTR)
                return;
            if (fds[1].revents)
                return;
            if (!(fds[0].revents & POLLIN))
                continue;
            // A burst of changes (a movie being written) settles for 50 ms before one refresh.
            do {
                while (::read(inotifyFd, buffer, sizeof buffer) > 0) {
                }
                pollfd settle[2] = {{inotifyFd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
                if (::poll(settle, 2, 50) <= 0)
                    break;
                if (settle[1].revents)
                    return;
            } while (true);
            refresh();
            if (onChange)
                onChange();
        }
    });
    m_watch = std::move(watch);
    return {};
}

void PlimStore::stopWatching() { m_watch.reset(); }

} // namespace plim
