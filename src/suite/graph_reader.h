#pragma once
// Reads every app's stream in the graph folder, merged in time order. Readers take no
// locks and never change a file: broken, oversized or undecodable lines are skipped and
// counted, so that a caller can say what was left out.

#include "suite/chained_line_reader.h"
#include "suite/moment.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plim {

namespace fs = std::filesystem;

// Something a reader left out of one stream file.
struct StreamFileIssue {
    fs::path file;
    std::optional<std::string> unreadable; // why the file could not be read
    size_t brokenLines = 0;                // lines that are not whole moments, or too long
    bool operator==(const StreamFileIssue&) const = default;

    // A whole sentence for the user: what was skipped, that the file is untouched.
    std::string sentence() const;
};

// Yields the merged, matching moments one by one.
class MomentIterator {
public:
    MomentIterator(MomentIterator&&) noexcept;
    MomentIterator& operator=(MomentIterator&&) noexcept;
    ~MomentIterator();

    // The matching moment with the earliest instant among all streams (equal instants:
    // the app whose slug sorts first), or nothing when all are exhausted.
    std::optional<Moment> next();

    // Files with unreadable parts or skipped lines met so far.
    std::vector<StreamFileIssue> issues() const;

private:
    friend class MomentSequence;
    struct Stream;
    MomentIterator(std::vector<std::unique_ptr<Stream>> streams, MomentQuery query,
        std::optional<Moment::Retraction::Index> retractions);
    void advance(Stream& stream);

    std::vector<std::unique_ptr<Stream>> m_streams;
    MomentQuery m_query;
    std::optional<Moment::Retraction::Index> m_retractions;
};

// A lazily read view of the graph: nothing is read until an iterator is made.
class MomentSequence {
public:
    // Reads the streams from the start. With retractions honoured, this first reads
    // every stream once to build the retraction index.
    MomentIterator makeIterator() const;

    // Every matching moment, oldest first; the issues met go to `issues` when given.
    std::vector<Moment> collect(std::vector<StreamFileIssue>* issues = nullptr) const;

private:
    friend class SuiteGraphReader;
    fs::path m_root;
    std::vector<std::string> m_apps;
    MomentQuery m_query;
    bool m_honorRetractions = true;
    size_t m_maxLineBytes = ChainedLineReader::defaultMaxLineBytes;
};

class SuiteGraphReader {
public:
    // The graph folder when `root` is unset.
    explicit SuiteGraphReader(std::optional<fs::path> root = std::nullopt,
        size_t maxLineBytes = ChainedLineReader::defaultMaxLineBytes);

    const fs::path& root() const { return m_root; }

    // Slugs with a stream file (active or rotated), sorted.
    std::vector<std::string> appsPresent() const;

    // An app's files in reading order: the older generation first, then the active one.
    std::vector<fs::path> chain(std::string_view app) const;

    MomentSequence moments(MomentQuery query, bool honorRetractions = true) const;

    // Built from the bookkeeping moments of every stream.
    Moment::Retraction::Index retractions() const;

private:
    fs::path m_root;
    size_t m_maxLineBytes;
};

} // namespace plim
