#include "base/files.h"
#include "captions/caption_model_transport.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plim {

namespace {

class FileSink final : public CaptionModelSink {
public:
    FileSink(int fd, int64_t length) : m_fd(fd), m_length(length) {}
    ~FileSink() override { ::close(m_fd); }

    int64_t length() const override { return m_length; }

    Status append(std::string_view bytes) override
    {
        while (!bytes.empty()) {
            ssize_t n = ::write(m_fd, bytes.data(), bytes.size());
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                return fail(errnoText(errno), errno == ENOSPC ? Error::Kind::noSpace : Error::Kind::failed);
            bytes.remove_prefix(size_t(n));
            m_length += n;
        }
        return {};
    }

    Status restart() override
    {
        if (::ftruncate(m_fd, 0) != 0)
            return fail(errnoText(errno));
        m_length = 0;
        return {};
    }

private:
    int m_fd;
    int64_t m_length;
};

} // namespace

Result<std::unique_ptr<CaptionModelSink>> openCaptionModelFile(const fs::path& path)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        return fail(errnoText(errno));
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return fail("it is not an ordinary file");
    }
    return std::make_unique<FileSink>(fd, int64_t(info.st_size));
}

} // namespace plim
