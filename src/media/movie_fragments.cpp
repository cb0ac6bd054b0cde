#include "media/movie_fragments.h"

#include "base/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace plim {

namespace {

uint64_t bigEndian(const unsigned char* bytes, int count)
{
    uint64_t value = 0;
    for (int i = 0; i < count; ++i)
        value = value << 8 | bytes[i];
    return value;
}

} // namespace

Result<std::optional<uint64_t>> unfinishedFragmentStart(const fs::path& movie)
{
    int fd = PLIM_TRY(openOrdinaryFile(movie));
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        int err = errno;
        ::close(fd);
        return fail(errnoText(err), Error::Kind::unreadable);
    }
    const uint64_t size = static_cast<uint64_t>(info.st_size);
    uint64_t at = 0;
    std::optional<uint64_t> lastFragmentHeader; // a whole moof not yet followed by a whole box
    bool sawIndex = false;
    std::optional<uint64_t> cut;
    while (at < size) {
        unsigned char header[16];
        ssize_t got = ::pread(fd, header, sizeof header, static_cast<off_t>(at));
        if (got < 0) {
            int err = errno;
            ::close(fd);
            return fail(errnoText(err), Error::Kind::unreadable);
        }
        uint64_t boxSize = got >= 8 ? bigEndian(header, 4) : 0;
        if (got >= 8 && boxSize == 1)
            boxSize = got >= 16 ? bigEndian(header + 8, 8) : 0;
        else if (got >= 8 && boxSize == 0) {
            ::close(fd);
            return std::optional<uint64_t>(); // a last box that runs to the end is whole
        }
        if (got < 8 || boxSize > size - at) {
            cut = lastFragmentHeader.value_or(at); // cut short
            break;
        }
        if (boxSize < 8) {
            ::close(fd);
            return std::optional<uint64_t>(); // not boxes as a recording writes them
        }
        const bool fragmentHeader = std::memcmp(header + 4, "moof", 4) == 0;
        sawIndex = sawIndex || std::memcmp(header + 4, "moov", 4) == 0;
        lastFragmentHeader = fragmentHeader ? std::optional<uint64_t>(at) : std::nullopt;
        at += boxSize;
    }
    ::close(fd);
    if (!cut)
        cut = lastFragmentHeader;
    // Without a whole index before the cut there is no movie to keep.
    if (!sawIndex)
        return std::optional<uint64_t>();
    return cut;
}

} // namespace plim
