#include "base/files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plim {

std::string errnoText(int err) { return std::strerror(err); }

static std::string sizeText(uint64_t bytes)
{
    char out[32];
    if (bytes >= (uint64_t(1) << 30))
        std::snprintf(out, sizeof out, "%.1f GB", double(bytes) / double(uint64_t(1) << 30));
    else
        std::snprintf(out, sizeof out, "%.1f MB", double(bytes) / double(1 << 20));
    return out;
}

static std::string tooLarge(uint64_t bytes)
{
    return "it holds " + sizeText(bytes) + ", far more than such a file can";
}

// Asks for huge pages under a large buffer before it is first written: each first touch of
// a small page is a fault, and on a virtual machine a costly one.
static void preferHugePages(char* data, size_t size)
{
    constexpr uintptr_t huge = uintptr_t(2) << 20;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + huge - 1) & ~(huge - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + size) & ~(huge - 1);
    if (end > begin)
        ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

bool isOrdinaryFile(const fs::path& path, size_t limit)
{
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && static_cast<uint64_t>(info.st_size) <= limit;
}

Result<int> openOrdinaryFile(const fs::path& path)
{
    // Non-blocking, so a pipe in the file's place cannot hold the reader forever.
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        int err = errno;
        if (err == ENOENT || err == ENOTDIR)
            return fail(errnoText(err), Error::Kind::missing);
        return fail(err == EISDIR ? "it is a folder, not a file" : errnoText(err), Error::Kind::unreadable);
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        int err = errno;
        ::close(fd);
        return fail(errnoText(err), Error::Kind::unreadable);
    }
    if (!S_ISREG(info.st_mode)) {
        ::close(fd);
        return fail(S_ISDIR(info.st_mode) ? "it is a folder, not a file" : "it is not an ordinary file",
            Error::Kind::unreadable);
    }
    return fd;
}

Status checkOrdinaryFile(const fs::path& path)
{
    int fd = PLIM_TRY(openOrdinaryFile(path));
    ::close(fd);
    return {};
}

Result<std::string> readFileBytes(const fs::path& path, size_t limit)
{
    int fd = PLIM_TRY(openOrdinaryFile(path));
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        int err = errno;
        ::close(fd);
        return fail(errnoText(err), Error::Kind::unreadable);
    }
    if (info.st_size > 0 && static_cast<uint64_t>(info.st_size) > limit) {
        ::close(fd);
        return fail(tooLarge(static_cast<uint64_t>(info.st_size)), Error::Kind::unreadable);
    }
    // Sized once from the file's length (plus one byte, so the end is seen without
    // growing); doubled if the file turns out longer (files under /proc report 0). Room
    // is never zeroed first, and 64 spare bytes past the end let a JSON parser read ahead
    // in place instead of copying the text.
    auto grow = [](std::string& s, size_t to) { s.resize_and_overwrite(to, [](char*, size_t n) { return n; }); };
    size_t size = info.st_size > 0 ? static_cast<size_t>(info.st_size) + 1 : 65536;
    std::string bytes;
    bytes.reserve(size + 64);
    preferHugePages(bytes.data(), bytes.capacity());
    grow(bytes, size);
    size_t used = 0;
    for (;;) {
        if (used == bytes.size()) {
            if (used > limit) {
                ::close(fd);
                return fail(tooLarge(used), Error::Kind::unreadable);
            }
            grow(bytes, std::min(bytes.size() * 2, limit + 1));
        }
        ssize_t n = ::read(fd, bytes.data() + used, bytes.size() - used);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            int err = errno;
            ::close(fd);
            return fail(errnoText(err), Error::Kind::unreadable);
        }
        if (n == 0)
            break;
        used += static_cast<size_t>(n);
    }
    ::close(fd);
    if (used > limit)
        return fail(tooLarge(used), Error::Kind::unreadable);
    bytes.resize(used);
    return bytes;
}

static std::string temporarySibling(const fs::path& path)
{
    static thread_local std::mt19937_64 random{std::random_device{}()};
    char tag[17];
    std::snprintf(tag, sizeof tag, "%016llx", static_cast<unsigned long long>(random()));
    return (path.parent_path() / ("." + path.filename().string() + ".tmp-" + tag)).string();
}

Status writeFileAtomic(const fs::path& path, std::string_view bytes)
{
    std::string temp = temporarySibling(path);
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        return fail("Could not write " + path.string() + " (" + errnoText(errno) + ").");
    auto abandon = [&](int err) {
        ::close(fd);
        ::unlink(temp.c_str());
        return fail("Could not write " + path.string() + " (" + errnoText(err) + ").");
    };
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return abandon(errno);
        }
        done += static_cast<size_t>(n);
    }
    if (::fsync(fd) != 0)
        return abandon(errno);
    if (::close(fd) != 0) {
        int err = errno;
        ::unlink(temp.c_str());
        return fail("Could not write " + path.string() + " (" + errnoText(err) + ").");
    }
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        int err = errno;
        ::unlink(temp.c_str());
        return fail("Could not write " + path.string() + " (" + errnoText(err) + ").");
    }
    return {};
}

fs::path sidecarPath(const fs::path& movie, std::string_view suffix)
{
    fs::path out = movie;
    out.replace_extension(std::string(".") + std::string(suffix));
    return out;
}

std::string baseName(const fs::path& movie) { return movie.stem().string(); }

std::string pathWithoutExtension(const fs::path& path)
{
    fs::path out = path;
    out.replace_extension();
    return out.string();
}

} // namespace plim
