#pragma once
// Appends this app's moments to its stream file in the suite's graph folder.
//
// Appends are serialised by a lock within the process and by an advisory lock on the
// active file across processes, so several writers of one app never interleave lines
// or lose a rotation. Each line goes out with O_APPEND in as few writes as the system
// allows. Files are only ever appended to, or renamed as a whole on rotation.

#include "base/error.h"
#include "suite/moment.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace plim {

namespace fs = std::filesystem;

// $XDG_DATA_HOME/TovanSuite/graph (else ~/.local/share/TovanSuite/graph).
fs::path defaultGraphFolder();

// "plim.moments.jsonl" and "plim.moments.1.jsonl".
std::string activeStreamName(std::string_view app);
std::string rotatedStreamName(std::string_view app);

class SuiteGraphWriter {
public:
    static constexpr uint64_t defaultMaxStreamBytes = 5'242'880;

    struct Options {
        bool allowsSensitive = false;
        std::optional<fs::path> root;          // the graph folder when unset
        uint64_t maxStreamBytes = defaultMaxStreamBytes;
    };

    // Fails with a sentence when the slug is not valid.
    static Result<std::unique_ptr<SuiteGraphWriter>> create(std::string app, Options options);
    static Result<std::unique_ptr<SuiteGraphWriter>> create(std::string app) { return create(std::move(app), Options{}); }

    const std::string& app() const { return m_app; }
    const fs::path& root() const { return m_root; }
    fs::path activePath() const;
    fs::path rotatedPath() const;

    // Builds a moment of this app stamped `ts` (now when unset) and appends it.
    Result<Moment> record(std::string kind, std::string title, std::optional<std::string> detail = std::nullopt,
        std::vector<Moment::Entity> entities = {}, bool sensitive = false,
        std::optional<Moment::Instant> ts = std::nullopt, std::optional<std::string> source = std::nullopt);

    // Appends a moment built elsewhere; it must be this app's and, when sensitive, the
    // writer must allow sensitive moments. Thread-safe.
    Status append(const Moment& moment);

    // Appends a "retracted" moment stamped `now` naming this app's moment at `at`
    // (and, when given, the thing it stands for).
    Result<Moment> retract(Moment::Instant at, std::optional<std::string> source = std::nullopt,
        std::optional<Moment::Instant> now = std::nullopt);
    // The same with kind "restored": cancels an earlier retraction of the same target.
    Result<Moment> restore(Moment::Instant at, std::optional<std::string> source = std::nullopt,
        std::optional<Moment::Instant> now = std::nullopt);

private:
    SuiteGraphWriter(std::string app, Options options);
    Status appendChecked(const Moment& moment, bool bookkeeping);
    Result<Moment> bookkeeping(std::string_view kind, Moment::Instant at, std::optional<std::string> source,
        std::optional<Moment::Instant> now);
    Status appendLine(const std::string& line);

    std::string m_app;
    bool m_allowsSensitive;
    fs::path m_root;
    uint64_t m_maxStreamBytes;
    std::mutex m_lock;
};

} // namespace plim
