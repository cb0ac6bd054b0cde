#include "base/trash.h"

#include "base/files.h"
#include "base/places.h"
#include "base/text.h"

#include <cctype>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace plim {

namespace {

std::string localDeletionDate()
{
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    return text;
}

std::string candidateName(const fs::path& path, int n)
{
    if (n == 1)
        return path.filename().string();
    return path.stem().string() + " " + std::to_string(n) + path.extension().string();
}

} // namespace

fs::path homeTrash() { return Places::dataHome() / "Trash"; }

Result<fs::path> moveToTrash(const fs::path& given)
{
    std::error_code error;
    const fs::path path = fs::absolute(given, error).lexically_normal();
    if (error || !fs::exists(fs::symlink_status(path, error)))
        return fail("it is not there any more", Error::Kind::missing);
    const fs::path files = homeTrash() / "files";
    const fs::path info = homeTrash() / "info";
    fs::create_directories(files, error);
    fs::create_directories(info, error);
    if (error)
        return fail("the Trash folder " + homeTrash().string() + " could not be made: " + error.message());

    const std::string record = "[Trash Info]\nPath=" + percentEncoded(path.string()) + "\nDeletionDate=" + localDeletionDate() + "\n";
    for (int n = 1; n < 10000; ++n) {
        const std::string name = candidateName(path, n);
        const fs::path infoFile = info / (name + ".trashinfo");
        // The info file is claimed first, exclusively: it reserves the name in files/.
        int fd = ::open(infoFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST)
                continue;
            return fail("the Trash could not record it: " + errnoText(errno));
        }
        const bool written = ::write(fd, record.data(), record.size()) == static_cast<ssize_t>(record.size());
        ::close(fd);
        const fs::path target = files / name;
        if (!written || fs::exists(fs::symlink_status(target, error))) {
            ::unlink(infoFile.c_str());
            if (!written)
                return fail("the Trash could not record it");
            continue;
        }
        if (::rename(path.c_str(), target.c_str()) == 0)
            return target;
        int err = errno;
        if (err == EXDEV) {
            // Another filesystem: copy into the home Trash, then remove the original.
            fs::copy(path, target, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
            if (!error) {
                fs::remove_all(path, error);
                if (!error)
                    return target;
                fs::remove_all(target);
            } else {
                fs::remove_all(target);
            }
            ::unlink(infoFile.c_str());
            return fail(error.message());
        }
        ::unlink(infoFile.c_str());
        return fail(errnoText(err));
    }
    return fail("the Trash holds too many files of that name");
}

} // namespace plim
