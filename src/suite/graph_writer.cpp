#include "suite/graph_writer.h"

#include "base/files.h"
#include "base/log.h"
#include "base/places.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plim {

namespace {

// Closes a descriptor when it goes out of scope (which also drops its flock).
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    ~FileDescriptor()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return m_fd; }
    int release()
    {
        int fd = m_fd;
        m_fd = -1;
        return fd;
    }

private:
    int m_fd;
};

void lockExclusive(int fd)
{
    // Best effort: where the file system has no advisory locks, O_APPEND still keeps
    // each line whole.
    while (::flock(fd, LOCK_EX) < 0 && errno == EINTR) {
    }
}

bool sameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// The last byte of the file at `path`, when it is still the file `expected` and readable.
std::optional<char> lastByte(const fs::path& path, const struct stat& expected)
{
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return std::nullopt;
    struct stat st{};
    if (::fstat(fd.get(), &st) < 0 || !sameFile(st, expected) || st.st_size <= 0)
        return std::nullopt;
    char byte = 0;
    ssize_t n;
    while ((n = ::pread(fd.get(), &byte, 1, st.st_size - 1)) < 0 && errno == EINTR) {
    }
    if (n != 1)
        return std::nullopt;
    return byte;
}

constexpr int maxReopenAttempts = 16;

} // namespace

fs::path defaultGraphFolder() { return Places::dataHome() / "TovanSuite" / "graph"; }

std::string activeStreamName(std::string_view app) { return std::string(app) + ".moments.jsonl"; }
std::string rotatedStreamName(std::string_view app) { return std::string(app) + ".moments.1.jsonl"; }

Result<std::unique_ptr<SuiteGraphWriter>> SuiteGraphWriter::create(std::string app, Options options)
{
    if (!isValidAppSlug(app))
        return fail(invalidAppSlugSentence(app));
    return std::unique_ptr<SuiteGraphWriter>(new SuiteGraphWriter(std::move(app), std::move(options)));
}

SuiteGraphWriter::SuiteGraphWriter(std::string app, Options options)
    : m_app(std::move(app))
    , m_allowsSensitive(options.allowsSensitive)
    , m_root(options.root ? *options.root : defaultGraphFolder())
    , m_maxStreamBytes(options.maxStreamBytes)
{
}

fs::path SuiteGraphWriter::activePath() const { return m_root / activeStreamName(m_app); }
fs::path SuiteGraphWriter::rotatedPath() const { return m_root / rotatedStreamName(m_app); }

Result<Moment> SuiteGraphWriter::record(std::string kind, std::string title, std::optional<std::string> detail,
    std::vector<Moment::Entity> entities, bool sensitive, std::optional<Moment::Instant> ts,
    std::optional<std::string> source)
{
    Moment moment;
    moment.ts = ts ? *ts : momentNow();
    moment.app = m_app;
    moment.kind = std::move(kind);
    moment.title = std::move(title);
    moment.detail = std::move(detail);
    moment.entities = std::move(entities);
    moment.sensitive = sensitive;
    moment.source = std::move(source);
    if (auto status = appendChecked(moment, false); !status)
        return std::unexpected(status.error());
    return moment;
}

Status SuiteGraphWriter::append(const Moment& moment) { return appendChecked(moment, false); }

Result<Moment> SuiteGraphWriter::retract(
    Moment::Instant at, std::optional<std::string> source, std::optional<Moment::Instant> now)
{
    return bookkeeping(Moment::retractedKind, at, std::move(source), now);
}

Result<Moment> SuiteGraphWriter::restore(
    Moment::Instant at, std::optional<std::string> source, std::optional<Moment::Instant> now)
{
    return bookkeeping(Moment::restoredKind, at, std::move(source), now);
}

Result<Moment> SuiteGraphWriter::bookkeeping(
    std::string_view kind, Moment::Instant at, std::optional<std::string> source, std::optional<Moment::Instant> now)
{
    Moment moment;
    moment.ts = now ? *now : momentNow();
    moment.app = m_app;
    moment.kind = std::string(kind);
    moment.title = kind == Moment::retractedKind ? "Retracted a moment" : "Restored a moment";
    moment.retracts = Moment::Retraction{m_app, at, std::move(source)};
    if (auto status = appendChecked(moment, true); !status)
        return std::unexpected(status.error());
    return moment;
}

Status SuiteGraphWriter::appendChecked(const Moment& moment, bool bookkeeping)
{
    if (moment.app != m_app)
        return fail("A moment stamped \"" + moment.app + "\" cannot be appended to the \"" + m_app
            + "\" stream: each app writes only its own history.");
    if (moment.sensitive && !m_allowsSensitive && !bookkeeping)
        return fail("The " + m_app
            + " writer was not opted in to sensitive moments. Create it with allowsSensitive: true to record them.");
    std::string line = PLIM_TRY(moment.jsonLine());
    line += '\n';
    std::lock_guard guard(m_lock);
    return appendLine(line);
}

Status SuiteGraphWriter::appendLine(const std::string& line)
{
    const fs::path active = activePath();
    std::error_code ec;
    fs::create_directories(m_root, ec); // a failure shows up as the open's error below

    for (int attempt = 0;; ++attempt) {
        FileDescriptor fd(::open(active.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
        if (fd.get() < 0) {
            int err = errno;
            return fail("Could not open the graph stream at " + active.string() + " for appending (POSIX error "
                + std::to_string(err) + ").");
        }
        lockExclusive(fd.get());

        struct stat opened{}, named{};
        if (::fstat(fd.get(), &opened) < 0)
            opened = {};
        bool current = ::stat(active.c_str(), &named) == 0 && sameFile(opened, named);
        if (!current && attempt < maxReopenAttempts)
            continue; // another process rotated the file while we waited for the lock

        const uint64_t size = static_cast<uint64_t>(opened.st_size);
        if (current && size > 0 && size + line.size() > m_maxStreamBytes && attempt < maxReopenAttempts) {
            const fs::path rotated = rotatedPath();
            if (::unlink(rotated.c_str()) < 0 && errno != ENOENT) {
                logLine(LogArea::moment, "Could not remove the older stream " + rotated.string() + " ("
                    + errnoText(errno) + "); the moment is appended to " + active.string() + " without rotating.");
            } else if (::rename(active.c_str(), rotated.c_str()) < 0) {
                logLine(LogArea::moment, "Could not rotate " + active.string() + " (" + errnoText(errno)
                    + "); the moment is appended to it without rotating.");
            } else {
                continue; // write to a fresh active file
            }
        }

        std::string bytes;
        if (size > 0) {
            auto last = lastByte(active, opened);
            if (last && *last != '\n')
                bytes += '\n'; // an earlier write was cut off: keep the broken line on its own
        }
        bytes += line;

        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = ::write(fd.get(), bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return fail("A moment was only partially written to " + active.string()
                    + "; the stream may need repair (the reader skips broken lines).");
            done += static_cast<size_t>(n);
        }
        if (::close(fd.release()) < 0 && errno != EINTR)
            return fail("A moment was only partially written to " + active.string()
                + "; the stream may need repair (the reader skips broken lines).");
        return {};
    }
}

} // namespace plim
