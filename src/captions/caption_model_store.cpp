#include "captions/caption_model_store.h"

#include "base/files.h"
#include "base/log.h"
#include "base/places.h"
#include "base/settings.h"

#include <cerrno>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <memory>
#include <vector>

namespace plim {

namespace {

// Holds the lock file open with an exclusive flock when nobody else has it; -1 otherwise.
int tryLock(const fs::path& path, bool create)
{
    int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0644);
    if (fd < 0)
        return -1;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

std::string hex(const unsigned char* bytes, unsigned length)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned i = 0; i < length; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

} // namespace

CaptionModelStore CaptionModelStore::standard() { return CaptionModelStore(Places::dataHome() / "plim" / "CaptionModels"); }

bool CaptionModelStore::isReady(const CaptionModelSize& size) const
{
    std::error_code ec;
    if (!fs::is_regular_file(markerPath(size), ec))
        return false;
    for (const auto& file : size.files) {
        auto bytes = fs::file_size(filePath(size, file), ec);
        if (ec || int64_t(bytes) != file.size)
            return false;
    }
    return true;
}

int64_t CaptionModelStore::bytesOnDisk(const CaptionModelSize& size) const
{
    int64_t total = 0;
    for (const auto& file : size.files) {
        std::error_code ec;
        auto bytes = fs::file_size(filePath(size, file), ec);
        if (!ec)
            total += int64_t(bytes);
    }
    return total;
}

std::optional<int64_t> CaptionModelStore::freeBytes() const
{
    fs::path probe = m_root;
    std::error_code ec;
    while (!fs::exists(probe, ec) && probe.has_parent_path() && probe != probe.parent_path())
        probe = probe.parent_path();
    struct statvfs info {};
    if (::statvfs(probe.c_str(), &info) != 0)
        return std::nullopt;
    return int64_t(info.f_bavail) * int64_t(info.f_frsize);
}

Status CaptionModelStore::writeMarker(const CaptionModelSize& size) const
{
    return writeFileAtomic(markerPath(size), size.title + "\n");
}

Status CaptionModelStore::remove(const CaptionModelSize& size) const
{
    const fs::path where = folder(size);
    if (isDownloading(size)) {
        logLine(LogArea::captions, "model could not be deleted (a download is running in " + where.string() + ")");
        return fail("The " + size.title + " model is downloading right now. Pause the download, then delete it.",
            Error::Kind::refused);
    }
    std::error_code ec;
    fs::remove_all(where, ec);
    if (ec) {
        logLine(LogArea::captions, "model could not be deleted (" + ec.message() + ")");
        return fail("Plim could not delete the " + size.title + " model in " + where.string() + " (" + ec.message()
            + "). Nothing else was changed; check the folder's permissions, then try again.");
    }
    logLine(LogArea::captions, "model deleted (" + where.string() + ")");
    return {};
}

bool CaptionModelStore::isDownloading(const CaptionModelSize& size) const
{
    int fd = tryLock(lockPath(size), false);
    if (fd >= 0) {
        ::close(fd);
        return false;
    }
    std::error_code ec;
    return fs::exists(lockPath(size), ec);
}

Status CaptionModelStore::requestPause(const CaptionModelSize& size) const
{
    if (!isDownloading(size))
        return fail("No download of the " + size.title + " model is running, so there is nothing to pause.",
            Error::Kind::missing);
    if (auto written = writeFileAtomic(pauseRequestPath(size), "pause\n"); !written)
        return fail("Plim could not ask the download to pause (" + written.error().sentence + "). It goes on; stop it with Ctrl-C where it runs.");
    return {};
}

Result<CaptionModelDownloadLock> CaptionModelDownloadLock::acquire(const CaptionModelStore& store, const CaptionModelSize& size)
{
    std::error_code ec;
    fs::create_directories(store.folder(size), ec);
    if (ec)
        return fail("Plim could not make the folder " + store.folder(size).string() + " (" + ec.message()
            + "). Check the disk has space and is not locked, then try again.", Error::Kind::unreadable);
    int fd = tryLock(store.lockPath(size), true);
    if (fd < 0)
        return fail("The " + size.title + " model is already downloading in another window or command; it goes on there.",
            Error::Kind::refused);
    return CaptionModelDownloadLock(fd);
}

CaptionModelDownloadLock::CaptionModelDownloadLock(CaptionModelDownloadLock&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1))
{
}

CaptionModelDownloadLock::~CaptionModelDownloadLock()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

Result<std::string> captionModelDigest(const fs::path& path, const CaptionModelFile& file, StopToken stop)
{
    auto fd = PLIM_TRY(openOrdinaryFile(path));
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    const bool blob = file.check.size() == 40;
    EVP_DigestInit_ex(context.get(), blob ? EVP_sha1() : EVP_sha256(), nullptr);
    if (blob) {
        struct stat info {};
        ::fstat(fd, &info);
        const std::string header = "blob " + std::to_string(info.st_size) + '\0';
        EVP_DigestUpdate(context.get(), header.data(), header.size());
    }
    std::vector<char> buffer(1 << 20);
    for (;;) {
        if (stop.stop_requested()) {
            ::close(fd);
            return fail("stopped", Error::Kind::stopped);
        }
        ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            int err = errno;
            ::close(fd);
            return fail(errnoText(err), Error::Kind::unreadable);
        }
        if (n == 0)
            break;
        EVP_DigestUpdate(context.get(), buffer.data(), size_t(n));
    }
    ::close(fd);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_DigestFinal_ex(context.get(), digest, &length);
    return hex(digest, length);
}

std::optional<fs::path> readyCaptionModelFolder(const SettingsStore& settings)
{
    const auto store = CaptionModelStore::standard();
    const auto size = chosenCaptionModelSize(settings);
    if (!store.isReady(size))
        return std::nullopt;
    return store.folder(size);
}

} // namespace plim
