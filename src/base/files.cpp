#include "base/files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace plim {

std::string errnoText(int err) { return std::strerror(err); }

std::expected<std::string, FileReadError> readFileBytes(const fs::path& path)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        ReadFailure kind = (err == ENOENT || err == ENOTDIR) ? ReadFailure::absent : ReadFailure::unreadable;
        return std::unexpected(FileReadError{kind, errnoText(err)});
    }
    // Sized once from the file's length (plus one byte, so the end is seen without
    // growing); doubled if the file turns out longer.
    struct stat info {};
    size_t size = 65536;
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0)
        size = static_cast<size_t>(info.st_size) + 1;
    std::string bytes(size, '\0');
    size_t used = 0;
    for (;;) {
        if (used == bytes.size())
            bytes.resize(bytes.size() * 2);
        ssize_t n = ::read(fd, bytes.data() + used, bytes.size() - used);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            int err = errno;
            ::close(fd);
            return std::unexpected(FileReadError{ReadFailure::unreadable, errnoText(err)});
        }
        if (n == 0)
            break;
        used += static_cast<size_t>(n);
    }
    bytes.resize(used);
    ::close(fd);
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
