#include "suite/chained_line_reader.h"

#include "base/files.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace plim {

ChainedLineReader::ChainedLineReader(std::vector<fs::path> chain, size_t maxLineBytes)
    : m_maxLineBytes(maxLineBytes)
{
    for (auto& path : chain)
        m_reports.push_back({std::move(path), std::nullopt, 0});
}

ChainedLineReader::~ChainedLineReader() { closeCurrent(); }

ChainedLineReader::ChainedLineReader(ChainedLineReader&& other) noexcept
    : m_reports(std::move(other.m_reports))
    , m_maxLineBytes(other.m_maxLineBytes)
    , m_index(other.m_index)
    , m_started(other.m_started)
    , m_fd(std::exchange(other.m_fd, -1))
    , m_buffer(std::move(other.m_buffer))
    , m_start(other.m_start)
    , m_scanned(other.m_scanned)
    , m_discarding(other.m_discarding)
{
}

ChainedLineReader& ChainedLineReader::operator=(ChainedLineReader&& other) noexcept
{
    if (this != &other) {
        closeCurrent();
        m_reports = std::move(other.m_reports);
        m_maxLineBytes = other.m_maxLineBytes;
        m_index = other.m_index;
        m_started = other.m_started;
        m_fd = std::exchange(other.m_fd, -1);
        m_buffer = std::move(other.m_buffer);
        m_start = other.m_start;
        m_scanned = other.m_scanned;
        m_discarding = other.m_discarding;
    }
    return *this;
}

void ChainedLineReader::closeCurrent()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

bool ChainedLineReader::openNext()
{
    while (m_index < m_reports.size()) {
        auto fd = openOrdinaryFile(m_reports[m_index].path);
        if (fd) {
            m_fd = *fd;
            return true;
        }
        if (fd.error().kind != Error::Kind::missing)
            m_reports[m_index].unreadable = fd.error().sentence;
        ++m_index;
    }
    return false;
}

bool ChainedLineReader::fill()
{
    if (m_start > 0) {
        m_buffer.erase(0, m_start);
        m_scanned -= m_start;
        m_start = 0;
    }
    size_t old = m_buffer.size();
    m_buffer.resize(old + chunkBytes);
    ssize_t n;
    while ((n = ::read(m_fd, m_buffer.data() + old, chunkBytes)) < 0 && errno == EINTR) {
    }
    if (n < 0)
        m_reports[m_index].unreadable = errnoText(errno);
    m_buffer.resize(old + static_cast<size_t>(n > 0 ? n : 0));
    return n > 0;
}

std::optional<ChainedLineReader::Line> ChainedLineReader::next()
{
    if (!m_started) {
        m_started = true;
        openNext();
    }
    while (m_fd >= 0) {
        size_t feed = m_buffer.find('\n', m_scanned);
        if (feed != std::string::npos) {
            bool tooLong = m_discarding || feed - m_start > m_maxLineBytes;
            size_t begin = m_start;
            m_start = m_scanned = feed + 1;
            m_discarding = false;
            if (tooLong) {
                ++m_reports[m_index].oversizedLines;
                continue;
            }
            if (feed == begin)
                continue;
            return Line{m_buffer.substr(begin, feed - begin), m_index};
        }
        m_scanned = m_buffer.size();
        if (m_buffer.size() - m_start > m_maxLineBytes) {
            // Keep memory bounded: remember only that this line is being dropped.
            m_discarding = true;
            m_buffer.clear();
            m_start = m_scanned = 0;
        }
        if (fill())
            continue;
        // End of this file: a last line without its line feed still counts as a line.
        std::optional<Line> tail;
        if (m_discarding)
            ++m_reports[m_index].oversizedLines;
        else if (m_buffer.size() > m_start)
            tail = Line{m_buffer.substr(m_start), m_index};
        m_buffer.clear();
        m_start = m_scanned = 0;
        m_discarding = false;
        closeCurrent();
        ++m_index;
        openNext();
        if (tail)
            return tail;
    }
    return std::nullopt;
}

} // namespace plim
