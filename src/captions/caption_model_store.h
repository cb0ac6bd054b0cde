#pragma once
// Where the Whisper model files live: $XDG_DATA_HOME/plim/CaptionModels/<size>/, each size
// in a folder of its own holding model.pt, vocab.json and merges.txt. A marker file
// ".plim-model-ready" says every file was verified and the model was prepared once.
//
// A download holds the size folder's lock (an flock on ".plim-download.lock") while it
// writes; another process pauses it by leaving ".plim-pause-request" beside it, which the
// download sees within a second. All calls may be made from any thread.

#include "base/error.h"
#include "captions/caption_model_manifest.h"

#include <filesystem>
#include <optional>

namespace plim {

namespace fs = std::filesystem;

class SettingsStore;

class CaptionModelStore {
public:
    explicit CaptionModelStore(fs::path root) : m_root(std::move(root)) {}
    // Places::dataHome()/"plim"/"CaptionModels".
    static CaptionModelStore standard();

    const fs::path& root() const { return m_root; }
    fs::path folder(const CaptionModelSize& size) const { return m_root / size.name; }
    fs::path filePath(const CaptionModelSize& size, const CaptionModelFile& file) const { return folder(size) / file.path; }
    fs::path markerPath(const CaptionModelSize& size) const { return folder(size) / ".plim-model-ready"; }
    fs::path lockPath(const CaptionModelSize& size) const { return folder(size) / ".plim-download.lock"; }
    fs::path pauseRequestPath(const CaptionModelSize& size) const { return folder(size) / ".plim-pause-request"; }

    // The marker is there and every file has its full size (no digest is read again).
    bool isReady(const CaptionModelSize& size) const;
    // The bytes of the size's files present, whole or partial.
    int64_t bytesOnDisk(const CaptionModelSize& size) const;
    // Free space on the volume the folder is (or would be) on; nothing when it cannot be read.
    std::optional<int64_t> freeBytes() const;

    Status writeMarker(const CaptionModelSize& size) const;
    // Removes the size's folder and logs it. Refused while a download holds the folder.
    Status remove(const CaptionModelSize& size) const;

    // Asks the download running in another process (or thread) to pause; fails `missing`
    // when none is running.
    Status requestPause(const CaptionModelSize& size) const;
    // True while some download holds the size folder's lock.
    bool isDownloading(const CaptionModelSize& size) const;

private:
    fs::path m_root;
};

// The lock a download holds on its size folder; released when the object goes.
class CaptionModelDownloadLock {
public:
    // Creates the folder; fails `refused` with a sentence when another download holds it.
    static Result<CaptionModelDownloadLock> acquire(const CaptionModelStore& store, const CaptionModelSize& size);
    CaptionModelDownloadLock(CaptionModelDownloadLock&& other) noexcept;
    CaptionModelDownloadLock& operator=(CaptionModelDownloadLock&&) = delete;
    CaptionModelDownloadLock(const CaptionModelDownloadLock&) = delete;
    ~CaptionModelDownloadLock();

private:
    explicit CaptionModelDownloadLock(int fd) : m_fd(fd) {}
    int m_fd = -1;
};

// The file's digest in the form its check is written in: SHA-256 for a 64-digit check, the
// git blob identifier for a 40-digit one. Fails `unreadable`, or `stopped` when asked to.
Result<std::string> captionModelDigest(const fs::path& path, const CaptionModelFile& file, StopToken stop = {});

// The folder holding the chosen size's model when it is ready to load, else nothing: the
// caption router asks this before it chooses Whisper.
std::optional<fs::path> readyCaptionModelFolder(const SettingsStore& settings);

} // namespace plim
