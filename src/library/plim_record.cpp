#include "library/plim_record.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace plim {

static SystemTime fromStatx(const struct statx_timestamp& stamp)
{
    auto since = std::chrono::seconds(stamp.tv_sec) + std::chrono::nanoseconds(stamp.tv_nsec);
    return SystemTime(std::chrono::duration_cast<SystemTime::duration>(since));
}

std::optional<SystemTime> fileCreationDate(const fs::path& path)
{
    struct statx info {};
    if (::statx(AT_FDCWD, path.c_str(), AT_STATX_SYNC_AS_STAT, STATX_BTIME | STATX_MTIME, &info) != 0)
        return std::nullopt;
    if (info.stx_mask & STATX_BTIME)
        return fromStatx(info.stx_btime);
    if (info.stx_mask & STATX_MTIME)
        return fromStatx(info.stx_mtime);
    return std::nullopt;
}

} // namespace plim
