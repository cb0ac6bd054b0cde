#include "suite/graph_writer.h"

#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <numeric>
#include <sstream>
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

std::vector<std::string> linesOf(const fs::path& file)
{
    std::vector<std::string> lines;
    std::istringstream in(readText(file));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// Moments titled "w<writer>-<n>": the numbers of each writer in file order. A line that
// is not a whole moment fails the test.
std::map<int, std::vector<int>> numbersByWriter(const std::vector<fs::path>& files)
{
    std::map<int, std::vector<int>> seen;
    for (const auto& file : files)
        for (const auto& line : linesOf(file)) {
            auto moment = Moment::fromJsonLine(line);
            int w = -1, n = -1;
            EXPECT_TRUE(moment && std::sscanf(moment->title.c_str(), "w%d-%d", &w, &n) == 2) << "torn line: " << line;
            seen[w].push_back(n);
        }
    return seen;
}

// Forks `processes` children at once; in each, `threads` threads share one writer of
// appOf(child) and append `count` moments titled "w<writer>-<n>", lines of different
// lengths per writer. True when every child wrote everything.
bool writeAtOnce(const fs::path& root, int processes, int threads, int count, uint64_t maxBytes,
    const std::function<std::string(int)>& appOf)
{
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
        if (pid_t pid = fork(); pid != 0) {
            children.push_back(pid);
            continue;
        }
        auto writer = makeWriter(root, maxBytes, false, appOf(i));
        std::atomic<bool> ok = writer != nullptr;
        std::vector<std::thread> workers;
        for (int w = i * threads; ok && w < (i + 1) * threads; ++w)
            workers.emplace_back([&, w] {
                for (int n = 0; n < count; ++n)
                    if (!writer->record("k", "w" + std::to_string(w) + "-" + std::to_string(n), std::string(w * 40, 'x')))
                        ok = false;
            });
        for (auto& worker : workers)
            worker.join();
        _exit(ok ? 0 : 1);
    }
    bool ok = true;
    for (pid_t pid : children) {
        int status = 0;
        ok = waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0 && ok;
    }
    return ok;
}

std::vector<int> numbers(int from, int to)
{
    std::vector<int> out(static_cast<size_t>(std::max(0, to - from)));
    std::iota(out.begin(), out.end(), from);
    return out;
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
    EXPECT_LE(first->ts, second->ts);
}

TEST(SuiteGraphWriter, RefusesOtherAppsHistoryUnoptedSensitiveMomentsAndBadSlugs)
{
    TempDir dir;
    auto writer = makeWriter(dir.path());
    auto status = writer->append(Moment{.app = "tovan", .kind = "mark", .title = "Mark"});
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().sentence,
        "A moment stamped \"tovan\" cannot be appended to the \"plim\" stream: each app writes only its own history.");
    auto secret = writer->record("note", "Private", std::nullopt, {}, true);
    ASSERT_FALSE(secret);
    EXPECT_EQ(secret.error().sentence,
        "The plim writer was not opted in to sensitive moments. Create it with allowsSensitive: true to record them.");
    EXPECT_FALSE(fs::exists(writer->activePath()));

    auto opted = makeWriter(dir.path(), SuiteGraphWriter::defaultMaxStreamBytes, true);
    auto recorded = opted->record("note", "Private", std::nullopt, {}, true);
    ASSERT_TRUE(recorded);
    EXPECT_EQ(Moment::fromJsonLine(linesOf(opted->activePath()).at(0)), *recorded);
    EXPECT_TRUE(recorded->sensitive);
    auto bad = SuiteGraphWriter::create("Plim!", {});
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.error().sentence, invalidAppSlugSentence("Plim!"));
}

TEST(SuiteGraphWriter, RotatesKeepingOneOlderGeneration)
{
    TempDir dir;
    const uint64_t lineBytes = Moment{.ts = momentNow(), .app = "plim", .kind = "k", .title = "w0-0"}.jsonLine()->size() + 1;
    auto writer = makeWriter(dir.path(), lineBytes * 3);
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(writer->record("k", "w0-" + std::to_string(i)));
    // 10 lines, 3 per generation: the active file holds the last 1, the older the 3 before.
    EXPECT_EQ(numbersByWriter({writer->rotatedPath()}), (std::map<int, std::vector<int>>{{0, {6, 7, 8}}}));
    EXPECT_EQ(numbersByWriter({writer->activePath()}), (std::map<int, std::vector<int>>{{0, {9}}}));

    // A line larger than the limit still lands, without emptying the older generation.
    auto big = makeWriter(dir.path(), 10);
    ASSERT_TRUE(big->record("k", "one more"));
    EXPECT_EQ(linesOf(writer->rotatedPath()).size(), 1u);
    EXPECT_EQ(linesOf(writer->activePath()).size(), 1u);
}

TEST(SuiteGraphWriter, AStreamThatCannotBeOpenedIsReportedAndLeftAsItIs)
{
    TempDir dir;
    fs::create_directories(dir / "graph" / "plim.moments.jsonl");
    writeText(dir / "graph" / "plim.moments.jsonl" / "keep", "bytes");
    auto status = makeWriter(dir / "graph")->record("k", "t");
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().sentence, "Could not open the graph stream at " + (dir / "graph/plim.moments.jsonl").string()
            + " for appending (POSIX error 21).");
    EXPECT_EQ(readText(dir / "graph" / "plim.moments.jsonl" / "keep"), "bytes");

    // A graph folder that is a file: nothing is created over it.
    writeText(dir / "file", "not a folder");
    auto refused = makeWriter(dir / "file")->record("k", "t");
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().sentence.ends_with("(POSIX error 20).")) << refused.error().sentence;
    EXPECT_EQ(readText(dir / "file"), "not a folder");
}

TEST(SuiteGraphWriter, ProcessesAndThreadsWritingAtOnceLoseAndInterleaveNothing)
{
    TempDir dir;
    constexpr int count = 150;
    // Three processes of two threads share the plim stream, one more writes tovan's.
    ASSERT_TRUE(writeAtOnce(dir.path(), 4, 2, count, SuiteGraphWriter::defaultMaxStreamBytes,
        [](int i) { return i < 3 ? "plim" : "tovan"; }));
    for (auto [app, writers] : {std::pair{"plim", 6u}, std::pair{"tovan", 2u}}) {
        auto seen = numbersByWriter({dir / (std::string(app) + ".moments.jsonl")});
        EXPECT_EQ(seen.size(), writers) << app;
        for (const auto& [w, numbersSeen] : seen)
            EXPECT_EQ(numbersSeen, numbers(0, count)) << app << " writer " << w;
    }
}

TEST(SuiteGraphWriter, ProcessesRotatingAtOnceKeepTheNewestLinesWhole)
{
    TempDir dir;
    constexpr int count = 300;
    constexpr uint64_t maxBytes = 16 * 1024;
    ASSERT_TRUE(writeAtOnce(dir.path(), 3, 2, count, maxBytes, [](int) { return "plim"; }));
    // What survives is the newest stretch of the common history: whole lines, and each
    // writer still present shows consecutive numbers ending with its last one.
    auto seen = numbersByWriter({dir / "plim.moments.1.jsonl", dir / "plim.moments.jsonl"});
    EXPECT_LE(fs::file_size(dir / "plim.moments.jsonl"), maxBytes);
    EXPECT_LE(fs::file_size(dir / "plim.moments.1.jsonl"), maxBytes);
    EXPECT_GT(fs::file_size(dir / "plim.moments.1.jsonl"), maxBytes / 2);
    ASSERT_FALSE(seen.empty());
    for (const auto& [w, numbersSeen] : seen)
        EXPECT_EQ(numbersSeen, numbers(count - static_cast<int>(numbersSeen.size()), count)) << "writer " << w;
}
