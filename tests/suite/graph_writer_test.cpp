#include "suite/graph_writer.h"

#include "suite/test_session_bus.h"

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
