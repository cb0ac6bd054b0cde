#include "suite/graph_writer.h"

#include "suite/graph_reader.h"
#include "testkit/session_bus.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <sstream>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;

namespace {

std::unique_ptr<SuiteGraphWriter> makeWriter(const fs::path& root,
    uint64_t maxBytes = SuiteGraphWriter::defaultMaxStreamBytes, bool allowsSensitive = false, std::string app = "plim")
{
    auto writer = SuiteGraphWriter::create(std::move(app), {allowsSensitive, root, maxBytes});
    return writer ? std::move(*writer) : nullptr;
}

template<typename R>
std::string sentenceOf(const R& result) { return result ? "no error" : result.error().sentence; }

// Moments titled "w<writer>-<n>": the numbers of each writer in file order. A line that
// is not a whole moment fails the test.
std::map<int, std::vector<int>> numbersByWriter(const std::vector<fs::path>& files)
{
    std::map<int, std::vector<int>> seen;
    for (const auto& file : files) {
        std::istringstream in(readText(file));
        for (std::string line; std::getline(in, line);) {
            auto moment = Moment::fromJsonLine(line);
            int w = -1, n = -1;
            EXPECT_TRUE(moment && std::sscanf(moment->title.c_str(), "w%d-%d", &w, &n) == 2) << "torn line: " << line;
            seen[w].push_back(n);
        }
    }
    return seen;
}

// Forks a writer process per app at once; each appends `count` moments titled
// "w<process>-<n>", with lines of a different length per process. True when every
// process wrote everything.
bool writeAtOnce(const fs::path& root, const std::vector<std::string>& apps, int count, uint64_t maxBytes)
{
    std::vector<pid_t> children;
    for (int w = 0; w < static_cast<int>(apps.size()); ++w) {
        if (pid_t pid = fork(); pid != 0) {
            children.push_back(pid);
            continue;
        }
        auto writer = makeWriter(root, maxBytes, false, apps[w]);
        for (int n = 0; writer && n < count; ++n)
            if (!writer->record("k", "w" + std::to_string(w) + "-" + std::to_string(n), std::string(w * 40, 'x')))
                _exit(1);
        _exit(writer ? 0 : 1);
    }
    bool ok = true;
    for (pid_t pid : children) {
        int status = 0;
        ok = waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0 && ok;
    }
    return ok;
}

} // namespace

TEST(SuiteGraphWriter, AppendsWholeLinesUnderTheGraphFolderAndStartsAfterATornTail)
{
    XdgSandbox sandbox;
    auto writer = std::move(SuiteGraphWriter::create("plim").value());
    EXPECT_EQ(writer->activePath(), sandbox.home() / ".local/share/TovanSuite/graph/plim.moments.jsonl");
    auto first = writer->record("recording", "Screen recording", "detail", {{"file", "B.mov"}});
    ASSERT_TRUE(first) << first.error().sentence;
    const std::string torn = R"({"schemaVersion":1,"ts":"2026-11-14T22:15:44.123Z","app":"plim","ki)";
    writeText(writer->activePath(), readText(writer->activePath()) + torn);
    auto second = writer->record("recording", "Another");
    ASSERT_TRUE(second);
    EXPECT_EQ(readText(writer->activePath()),
        first->jsonLine().value() + "\n" + torn + "\n" + second->jsonLine().value() + "\n");
}

TEST(SuiteGraphWriter, RefusesWithASentenceAndChangesNothing)
{
    TempDir dir;
    auto writer = makeWriter(dir.path());
    EXPECT_EQ(sentenceOf(writer->append(Moment{.app = "tovan", .kind = "mark", .title = "Mark"})),
        "A moment stamped \"tovan\" cannot be appended to the \"plim\" stream: each app writes only its own history.");
    EXPECT_EQ(sentenceOf(writer->record("note", "Private", std::nullopt, {}, true)),
        "The plim writer was not opted in to sensitive moments. Create it with allowsSensitive: true to record them.");
    EXPECT_FALSE(fs::exists(writer->activePath()));

    auto opted = makeWriter(dir.path(), SuiteGraphWriter::defaultMaxStreamBytes, true);
    auto recorded = opted->record("note", "Private", std::nullopt, {}, true);
    ASSERT_TRUE(recorded && recorded->sensitive);
    EXPECT_EQ(readText(opted->activePath()), recorded->jsonLine().value() + "\n");
    EXPECT_EQ(sentenceOf(SuiteGraphWriter::create("Plim!", {})), invalidAppSlugSentence("Plim!"));

    // A stream that cannot be opened, or a graph folder that is a file, is left as it is.
    const fs::path stream = dir / "graph" / "plim.moments.jsonl";
    fs::create_directories(stream);
    writeText(stream / "keep", "bytes");
    EXPECT_EQ(sentenceOf(makeWriter(dir / "graph")->record("k", "t")),
        "Could not open the graph stream at " + stream.string() + " for appending (POSIX error 21).");
    EXPECT_EQ(readText(stream / "keep"), "bytes");
    writeText(dir / "file", "not a folder");
    auto refused = sentenceOf(makeWriter(dir / "file")->record("k", "t"));
    EXPECT_TRUE(refused.ends_with(" for appending (POSIX error 20).")) << refused;
    EXPECT_EQ(readText(dir / "file"), "not a folder");
}

TEST(SuiteGraphWriter, AWriterThatWaitedForTheLockWhileTheStreamRotatedWritesToTheNewStream)
{
    TempDir dir;
    auto writer = makeWriter(dir.path());
    ASSERT_TRUE(writer->record("k", "w0-0"));
    int held = ::open(writer->activePath().c_str(), O_RDONLY | O_CLOEXEC); // as another writer about to rotate
    ASSERT_EQ(::flock(held, LOCK_EX), 0);
    std::thread waiting([&] { EXPECT_TRUE(writer->record("k", "w0-1")); });
    const std::string waiter = "-> FLOCK  ADVISORY  WRITE " + std::to_string(::getpid()) + " ";
    const bool waited = eventually([&] { return readText("/proc/locks").find(waiter) != std::string::npos; });
    fs::rename(writer->activePath(), writer->rotatedPath());
    ::close(held);
    waiting.join();
    ASSERT_TRUE(waited) << "the second append never waited for the lock";
    EXPECT_EQ(numbersByWriter({writer->rotatedPath()}), (std::map<int, std::vector<int>>{{0, {0}}}));
    EXPECT_EQ(numbersByWriter({writer->activePath()}), (std::map<int, std::vector<int>>{{0, {1}}}));
}

TEST(SuiteGraphWriter, RotatesKeepingOneOlderGeneration)
{
    TempDir dir;
    Moment probe{.ts = momentNow(), .app = "plim", .kind = "k", .title = "w0-0"};
    auto writer = makeWriter(dir.path(), (probe.jsonLine().value().size() + 1) * 3);
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(writer->record("k", "w0-" + std::to_string(i)));
    // 10 lines, 3 per generation: the active file holds the last 1, the older the 3 before.
    EXPECT_EQ(numbersByWriter({writer->rotatedPath()}), (std::map<int, std::vector<int>>{{0, {6, 7, 8}}}));
    EXPECT_EQ(numbersByWriter({writer->activePath()}), (std::map<int, std::vector<int>>{{0, {9}}}));

    // A line larger than the limit still lands, without emptying the older generation.
    ASSERT_TRUE(makeWriter(dir.path(), 10)->record("k", "w1-0"));
    EXPECT_EQ(numbersByWriter({writer->rotatedPath()}), (std::map<int, std::vector<int>>{{0, {9}}}));
    EXPECT_EQ(numbersByWriter({writer->activePath()}), (std::map<int, std::vector<int>>{{1, {0}}}));
}

TEST(SuiteGraphWriter, ProcessesWritingAtOnceLoseAndInterleaveNothingEvenWhileRotating)
{
    TempDir dir, rotating;
    constexpr int count = 300;
    // Four processes share the plim stream, two more write tovan's.
    ASSERT_TRUE(writeAtOnce(dir.path(), {"plim", "plim", "plim", "plim", "tovan", "tovan"}, count,
        SuiteGraphWriter::defaultMaxStreamBytes));
    std::vector<int> all(count);
    std::iota(all.begin(), all.end(), 0);
    EXPECT_EQ(numbersByWriter({dir / "plim.moments.jsonl"}),
        (std::map<int, std::vector<int>>{{0, all}, {1, all}, {2, all}, {3, all}}));
    EXPECT_EQ(numbersByWriter({dir / "tovan.moments.jsonl"}), (std::map<int, std::vector<int>>{{4, all}, {5, all}}));

    // Rotating at once, what survives is the newest stretch of the common history: whole
    // lines, and each writer still present shows consecutive numbers ending with its last.
    constexpr uint64_t maxBytes = 16 * 1024;
    ASSERT_TRUE(writeAtOnce(rotating.path(), {"plim", "plim", "plim", "plim"}, count, maxBytes));
    auto seen = numbersByWriter({rotating / "plim.moments.1.jsonl", rotating / "plim.moments.jsonl"});
    EXPECT_LE(fs::file_size(rotating / "plim.moments.jsonl"), maxBytes);
    EXPECT_LE(fs::file_size(rotating / "plim.moments.1.jsonl"), maxBytes);
    EXPECT_GT(fs::file_size(rotating / "plim.moments.1.jsonl"), maxBytes / 2);
    ASSERT_FALSE(seen.empty());
    for (const auto& [w, numbers] : seen) {
        EXPECT_EQ(numbers.back(), count - 1) << "writer " << w;
        EXPECT_EQ(std::ranges::adjacent_find(numbers, [](int a, int b) { return b != a + 1; }), numbers.end()) << w;
    }
}

using std::chrono::seconds;
using Texts = std::vector<std::string>;

namespace {

Moment::Instant at(std::string_view text) { return parseMomentTime(text).value(); }

std::string line(std::string_view app, std::string_view ts, std::string_view title)
{
    Moment moment{.ts = at(ts), .app = std::string(app), .kind = "k", .title = std::string(title)};
    return moment.jsonLine().value();
}

Texts titles(MomentIterator&& it)
{
    Texts out;
    while (auto m = it.next())
        out.push_back(m->title);
    return out;
}

} // namespace

TEST(SuiteGraphReader, MergesStreamsByInstantWithTheSmallerSlugFirstOnTiesAndReadsLazily)
{
    TempDir dir;
    const std::string longTitle(ChainedLineReader::chunkBytes + 10, 'L'); // read in two chunks
    writeText(dir / "tovan.moments.jsonl", // a blank line, and no line feed at the end
        line("tovan", "2026-11-14T10:00:01Z", "t1") + "\n\n" + line("tovan", "2026-11-14T10:00:05Z", "t2"));
    writeText(dir / "plim.moments.1.jsonl", line("plim", "2026-11-14T10:00:00Z", "p-old") + "\n");
    writeText(dir / "plim.moments.jsonl", line("plim", "2026-11-14T10:00:05Z", "p-tie") + "\n"
            + line("plim", "2026-11-14T10:00:09Z", longTitle) + "\n");
    writeText(dir / "sorvel.moments.jsonl", line("sorvel", "2026-11-14T10:00:02Z", "s1") + "\n");
    writeText(dir / "notes.txt", "not a stream");
    writeText(dir / "Bad-Slug.moments.jsonl", line("x", "2026-11-14T10:00:02Z", "never") + "\n");

    SuiteGraphReader reader(dir.path());
    EXPECT_EQ(titles(reader.moments({.apps = std::set<std::string>{"tovan"}}).makeIterator()), (Texts{"t1", "t2"}));

    // A moment appended after the iterator was made still comes out.
    auto it = reader.moments({}).makeIterator();
    EXPECT_EQ(it.next()->title, "p-old");
    auto writer = SuiteGraphWriter::create("plim", {false, dir.path()});
    ASSERT_TRUE((*writer)->record("k", "p-appended", std::nullopt, {}, false, at("2026-11-14T10:00:10Z")));
    EXPECT_EQ(titles(std::move(it)), (Texts{"t1", "s1", "p-tie", "t2", longTitle, "p-appended"}));
    EXPECT_TRUE(it.issues().empty());
}

TEST(SuiteGraphReader, HonoursRetractionsAndRestorationsFromEveryStream)
{
    TempDir dir;
    auto plim = std::move(*SuiteGraphWriter::create("plim", {false, dir.path()}));
    auto tovan = std::move(*SuiteGraphWriter::create("tovan", {false, dir.path()}));
    auto base = at("2026-11-14T10:00:00Z");
    auto record = [&](const std::string& title, int s, std::optional<std::string> source = std::nullopt) {
        return plim->record("recording", title, std::nullopt, {}, false, base + seconds(s), source).value();
    };
    Moment kept = record("kept", 0), hidden = record("hidden", 1, "ID-H"), back = record("back", 2),
           bySource = record("by source", 3, "ID-S");
    ASSERT_TRUE(tovan->record("mark", "other app", std::nullopt, {}, false, hidden.ts)); // same instant, not hidden
    ASSERT_TRUE(plim->retract(hidden.ts, std::nullopt, base + seconds(10)));
    ASSERT_TRUE(plim->retract(back.ts, std::nullopt, base + seconds(11)));
    ASSERT_TRUE(plim->restore(back.ts, std::nullopt, base + seconds(12)));
    ASSERT_TRUE(plim->retract(base - seconds(99), "ID-S", base + seconds(13)));

    SuiteGraphReader reader(dir.path());
    EXPECT_EQ(titles(reader.moments({}).makeIterator()), (Texts{"kept", "other app", "back"}));
    EXPECT_EQ(titles(reader.moments({}, false).makeIterator()),
        (Texts{"kept", "hidden", "other app", "back", "by source"}));
    auto marks = reader.moments({.kinds = std::set<std::string>{"retracted", "restored"}}).collect();
    ASSERT_EQ(marks.size(), 4u);
    EXPECT_EQ(marks[0].retracts, (Moment::Retraction{"plim", hidden.ts, std::nullopt}));
    EXPECT_EQ(marks[2].kind, "restored");
    EXPECT_EQ(marks[2].ts, base + seconds(12));
    EXPECT_EQ(marks[3].retracts, (Moment::Retraction{"plim", base - seconds(99), "ID-S"}));
}

TEST(SuiteGraphReader, SkipsWhatIsNotAMomentAndLeavesEveryFileAsItWas)
{
    TempDir dir;
    const std::string plimText = line("plim", "2026-11-14T10:00:00.000Z", "good 1") + "\nnot json at all\n"
        + "{\"ts\":\"2026-11-14T10:00:01Z\"}\n" + std::string("\xFF\xFE\x00\x01 binary\n", 12)
        + line("plim", "2026-11-14T10:00:02Z", "whole second") + "\n"
        + R"({"schemaVersion":1,"ts":"2026-11-14T10:00:03.000Z","app":"plim","ki)";
    writeText(dir / "plim.moments.jsonl", plimText);
    fs::create_directories(dir / "tovan.moments.jsonl"); // cannot be read as a file
    writeText(dir / "sorvel.moments.jsonl", line("sorvel", "2026-11-14T10:00:01Z", "sorvel") + "\n");
    // Lines over the limit are dropped whole: one spanning many chunks (never held in
    // memory whole) and one cut off at the end.
    const std::string oversized = std::string(5 * ChainedLineReader::chunkBytes, 'q') + "\n"
        + line("sorvel", "2026-11-14T10:00:00.500Z", "after a long line") + "\n" + std::string(3000, 'z');
    writeText(dir / "sorvel.moments.1.jsonl", oversized);

    std::vector<StreamFileIssue> issues;
    auto moments = SuiteGraphReader(dir.path(), 2048).moments({}).collect(&issues);
    ASSERT_EQ(moments.size(), 4u);
    EXPECT_EQ(moments[1].title, "after a long line");
    EXPECT_EQ(moments[3].ts, at("2026-11-14T10:00:02.000Z"));
    ASSERT_EQ(issues.size(), 3u);
    EXPECT_EQ(issues[0], (StreamFileIssue{dir / "plim.moments.jsonl", std::nullopt, 4}));
    EXPECT_EQ(issues[0].sentence(), "Skipped 4 lines of the moment stream " + (dir / "plim.moments.jsonl").string()
            + " that are not whole moments; the file was left as it is and its other moments are shown.");
    EXPECT_EQ(issues[1], (StreamFileIssue{dir / "sorvel.moments.1.jsonl", std::nullopt, 2}));
    EXPECT_TRUE(issues[2].file == dir / "tovan.moments.jsonl" && issues[2].unreadable);

    EXPECT_EQ(readText(dir / "plim.moments.jsonl"), plimText);
    EXPECT_EQ(readText(dir / "sorvel.moments.1.jsonl"), oversized);
    EXPECT_TRUE(fs::is_directory(dir / "tovan.moments.jsonl"));
    EXPECT_TRUE(SuiteGraphReader(dir / "nowhere").moments({}).collect().empty());
}
