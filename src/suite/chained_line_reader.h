#pragma once
// Reads the lines of a chain of files one after another, in chunks, without locks:
// a line cut off at a file's end is still returned (its decoding decides), and a
// line longer than the limit is dropped whole. Files are opened read-only and never
// changed.

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace plim {

namespace fs = std::filesystem;

class ChainedLineReader {
public:
    static constexpr size_t chunkBytes = 65'536;
    static constexpr size_t defaultMaxLineBytes = 16 * 1024 * 1024;

    struct Line {
        std::string text;    // without its line feed
        size_t fileIndex = 0; // position of its file in the chain
    };

    // What reading each file of the chain met.
    struct FileReport {
        fs::path path;
        std::optional<std::string> unreadable; // why the file could not be opened or read
        size_t oversizedLines = 0;
    };

    explicit ChainedLineReader(std::vector<fs::path> chain, size_t maxLineBytes = defaultMaxLineBytes);
    ~ChainedLineReader();
    ChainedLineReader(const ChainedLineReader&) = delete;
    ChainedLineReader& operator=(const ChainedLineReader&) = delete;
    ChainedLineReader(ChainedLineReader&& other) noexcept;
    ChainedLineReader& operator=(ChainedLineReader&& other) noexcept;

    // The next line of the chain, or nothing when every file is exhausted. Empty lines
    // are passed over. A file that is absent counts as empty.
    std::optional<Line> next();

    const std::vector<FileReport>& reports() const { return m_reports; }

private:
    bool openNext();
    void closeCurrent();
    // Reads one more chunk of the current file; false at its end or on an error.
    bool fill();

    std::vector<FileReport> m_reports;
    size_t m_maxLineBytes;
    size_t m_index = 0;      // file being read (== size when done)
    bool m_started = false;
    int m_fd = -1;
    std::string m_buffer;    // bytes read; those before m_start are already returned
    size_t m_start = 0;
    size_t m_scanned = 0;    // m_buffer holds no line feed between m_start and here
    bool m_discarding = false; // dropping the rest of an oversized line
};

} // namespace plim
