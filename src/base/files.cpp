#include "base/files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/openat2.h>
#include <stdio.h>
#include <iterator>
#include <random>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

namespace {

constexpr size_t nameBytes = 255; // NAME_MAX of every Linux file system Plim writes to

std::string randomHex(int digits)
{
    static thread_local std::mt19937_64 random{std::random_device{}()};
    char tag[17];
    std::snprintf(tag, sizeof tag, "%016llx", static_cast<unsigned long long>(random()));
    return std::string(tag, static_cast<size_t>(std::clamp(digits, 1, 16)));
}

// stem + middle + extension in 255 bytes: the stem gives way first, cut where a character
// starts; an extension too long to leave room goes with it.
fs::path fittedName(const fs::path& folder, std::string stem, std::string_view middle, std::string extension)
{
    if (middle.size() + extension.size() > nameBytes) {
        stem += extension;
        extension.clear();
    }
    const size_t room = nameBytes - std::min(nameBytes, middle.size() + extension.size());
    if (stem.size() > room) {
        size_t cut = room;
        while (cut > 0 && (static_cast<unsigned char>(stem[cut]) & 0xC0) == 0x80)
            --cut;
        stem.resize(cut);
    }
    return folder / (stem + std::string(middle) + extension);
}

constexpr std::string_view parkedTag = "partial-replaced-";

} // namespace

fs::path siblingName(const fs::path& final, std::string_view tag)
{
    std::string middle = ".";
    middle.append(tag);
    return fittedName(final.parent_path(), final.stem().string(), middle, final.extension().string());
}

fs::path partialSibling(const fs::path& final) { return siblingName(final, "partial-" + randomHex(8)); }

fs::path parkedSibling(const fs::path& final) { return siblingName(final, std::string(parkedTag) + randomHex(8)); }

bool isParkedName(std::string_view name)
{
    const std::string stem = fs::path(name).stem().string();
    const size_t at = stem.rfind("." + std::string(parkedTag));
    if (at == std::string::npos || stem.size() != at + 1 + parkedTag.size() + 8)
        return false;
    return std::all_of(stem.begin() + static_cast<std::ptrdiff_t>(at + 1 + parkedTag.size()), stem.end(),
        [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

// Makes `to` name the file at `from` unless something is there already (EEXIST).
static int linkWithoutReplacing(const fs::path& from, const fs::path& to)
{
    if (::link(from.c_str(), to.c_str()) == 0)
        return 0;
    int err = errno;
    if (err != EPERM && err != EOPNOTSUPP && err != ENOSYS)
        return err;
    // A file system without hard links: a rename that refuses to replace.
    return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0 ? 0 : errno;
}

Result<fs::path> publishFile(const fs::path& partial, const fs::path& wished, Publish how)
{
    if (how == Publish::replacing) {
        struct stat info {};
        fs::path parked;
        if (::lstat(wished.c_str(), &info) == 0 && !S_ISDIR(info.st_mode)) {
            parked = parkedSibling(wished);
            if (::link(wished.c_str(), parked.c_str()) != 0)
                parked.clear();
        }
        if (::rename(partial.c_str(), wished.c_str()) != 0) {
            int err = errno;
            if (!parked.empty())
                ::unlink(parked.c_str());
            return fail(err == EISDIR ? "a folder has that name" : errnoText(err));
        }
        if (!parked.empty())
            ::unlink(parked.c_str());
        return wished;
    }
    const std::string stem = wished.stem().string(), extension = wished.extension().string();
    for (long n = 1; n <= 9999; ++n) {
        std::string middle;
        if (n > 1)
            middle.append(" ").append(std::to_string(n));
        fs::path name = fittedName(wished.parent_path(), stem, middle, extension);
        int err = linkWithoutReplacing(partial, name);
        if (err == EEXIST)
            continue;
        if (err != 0)
            return fail(errnoText(err));
        std::error_code ignored;
        if (fs::exists(partial, ignored)) // linked: the partial name goes; renamed: it is gone already
            ::unlink(partial.c_str());
        return name;
    }
    return fail("every name from " + wished.filename().string() + " to 9999 of it is taken");
}

Status writeFileAtomic(const fs::path& path, std::string_view bytes)
{
    std::string temp = partialSibling(path).string();
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

// An empty name, an absolute one or one that climbs with "..": outside whatever the folder.
static Status nameStaysInside(const fs::path& relative)
{
    const bool climbs = std::any_of(relative.begin(), relative.end(), [](const fs::path& part) { return part == ".."; });
    if (relative.empty() || relative.has_root_path() || climbs)
        return fail("it names a place outside the folder", Error::Kind::refused);
    return {};
}

Result<fs::path> fileInsideFolder(const fs::path& folder, std::string_view name)
{
    const fs::path relative(name);
    PLIM_TRY(nameStaysInside(relative));
    std::error_code error;
    const fs::path root = fs::canonical(folder.empty() ? fs::path(".") : folder, error);
    if (error)
        return fail(error.message(), Error::Kind::unreadable);
    const fs::path target = fs::weakly_canonical(root / relative, error);
    if (error)
        return fail(error.message(), Error::Kind::unreadable);
    auto [inRoot, inTarget] = std::mismatch(root.begin(), root.end(), target.begin(), target.end());
    if (inRoot != root.end() || inTarget == target.end())
        return fail("it leads outside the folder", Error::Kind::refused);
    if (!fs::exists(fs::symlink_status(target, error)))
        return fail("nothing is there", Error::Kind::missing);
    return target;
}

HeldFile::~HeldFile()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

fs::path HeldFile::reopenPath() const { return "/proc/self/fd/" + std::to_string(m_fd); }

// Without openat2 (kernels before 5.6, some sandboxes): each step opened without following a
// link, so a link anywhere on the way is refused, even one that stays inside.
static int openWithoutLinks(int folder, const fs::path& relative, int flags)
{
    int at = ::dup(folder);
    for (auto part = relative.begin(); at >= 0 && part != relative.end(); ++part) {
        const bool last = std::next(part) == relative.end();
        struct stat info {};
        int next = -1;
        if (::fstatat(at, part->c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(info.st_mode))
            errno = EXDEV;
        else
            next = ::openat(at, part->c_str(), last ? flags | O_NOFOLLOW : O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        const int err = errno;
        ::close(at);
        errno = err;
        at = next;
    }
    return at;
}

Result<HeldFile> openInsideFolder(const fs::path& folder, std::string_view name)
{
    const fs::path relative(name);
    PLIM_TRY(nameStaysInside(relative));
    const fs::path root = folder.empty() ? fs::path(".") : folder;
    int dir = ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0)
        return fail(errnoText(errno), Error::Kind::unreadable);
    // Non-blocking, so a pipe in the file's place cannot hold the reader.
    const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    open_how how{};
    how.flags = flags;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    int fd = -1;
    do
        fd = static_cast<int>(::syscall(SYS_openat2, dir, relative.c_str(), &how, sizeof how));
    while (fd < 0 && errno == EAGAIN);
    if (fd < 0 && (errno == ENOSYS || errno == EPERM))
        fd = openWithoutLinks(dir, relative, flags);
    const int err = errno;
    ::close(dir);
    if (fd < 0) {
        if (err == EXDEV || err == ELOOP)
            return fail("it leads outside the folder", Error::Kind::refused);
        if (err == ENOENT || err == ENOTDIR)
            return fail("nothing is there", Error::Kind::missing);
        return fail(err == EISDIR ? "it is a folder, not a file" : errnoText(err), Error::Kind::unreadable);
    }
    HeldFile held(fd, root / relative);
    struct stat info {};
    if (::fstat(fd, &info) != 0)
        return fail(errnoText(errno), Error::Kind::unreadable);
    if (!S_ISREG(info.st_mode))
        return fail(S_ISDIR(info.st_mode) ? "it is a folder, not a file" : "it is not an ordinary file",
            Error::Kind::unreadable);
    return held;
}

Status refuseOwnFile(const fs::path& output, const fs::path& movie, const std::vector<fs::path>& named,
    const std::optional<fs::path>& mayReplace)
{
    auto same = [](const fs::path& a, const fs::path& b) {
        std::error_code error;
        if (fs::weakly_canonical(a, error) == fs::weakly_canonical(b, error) && !error)
            return true;
        return fs::exists(a, error) && fs::exists(b, error) && fs::equivalent(a, b, error) && !error;
    };
    if (mayReplace && same(output, *mayReplace))
        return {};
    std::vector<fs::path> own = named;
    own.push_back(movie);
    for (std::string_view suffix : PlimFiles::all)
        own.push_back(sidecarPath(movie, suffix));
    for (const fs::path& file : own)
        if (same(output, file))
            return fail(output.string() + " is " + (file == movie ? "the plim's own recording" : "one of the plim's own files ("
                + file.filename().string() + ")") + ", so nothing was written and it was left as it is. Choose another "
                "name for the output.", Error::Kind::refused);
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
