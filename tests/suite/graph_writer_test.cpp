#include "suite/graph_writer.h"

#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;

namespace {

std::unique_ptr<SuiteGraphWriter> makeWriter(
    const fs::path& root, std::string app = "plim", uint64_t maxBytes = SuiteGraphWriter::defaultMaxStreamBytes,
    bool allowsSensitive = false)
{
    auto writer = SuiteGraphWriter::create(std::move(app), {allowsSensitive, root, maxBytes});
    EXPECT_TRUE(writer);
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

// Runs `body` in `count` forked processes at once and waits for all of them; true when
// every child exited 0.
template<typename Body>
bool inChildProcesses(int count, Body body)
{
    std::vector<pid_t> children;
    for (int i = 0; i < count; ++i) {
        pid_t pid = fork();
        if (pid == 0)
            _exit(body(i) ? 0 : 1);
        children.push_back(pid);
    }
    bool ok = true;
    for (pid_t pid : children) {
        int status = 0;
        waitpid(pid, &status, 0);
        ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return ok;
}

// Title "w<writer>-<n>" -> (writer, n).
std::pair<int, int> titleNumbers(const std::string& title)
{
    int w = -1, n = -1;
    std::sscanf(title.c_str(), "w%d-%d", &w, &n);
    return {w, n};
}

} // namespace

TEST(SuiteGraphWriter, AppendsOneLineFeedEndedMomentPerCallUnderTheGraphFolder)
{
    XdgSandbox sandbox;
    auto created = SuiteGraphWriter::create("plim");
    ASSERT_TRUE(created);
    auto& writer = **created;
    EXPECT_EQ(writer.activePath(), sandbox.home() / ".local/share/TovanSuite/graph/plim.moments.jsonl");

    auto first = writer.record("recording", "Screen recording", "detail", {{"file", "B.mov"}});
    ASSERT_TRUE(first) << first.error().sentence;
    auto second = writer.record("recording", "Another");
    ASSERT_TRUE(second);
    std::string text = readText(writer.activePath());
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n');
    auto lines = linesOf(writer.activePath());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(Moment::fromJsonLine(lines[0]), *first);
    EXPECT_EQ(Moment::fromJsonLine(lines[1]), *second);
    EXPECT_LE(first->ts, second->ts);
}

TEST(SuiteGraphWriter, RefusesOtherAppsHistoryUnoptedSensitiveMomentsAndBadSlugs)
{
    TempDir dir;
    auto writer = makeWriter(dir.path());
    Moment foreign;
    foreign.app = "tovan";
    foreign.kind = "mark";
    foreign.title = "Mark";
    auto status = writer->append(foreign);
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().sentence,
        "A moment stamped \"tovan\" cannot be appended to the \"plim\" stream: each app writes only its own history.");

    auto secret = writer->record("note", "Private", std::nullopt, {}, true);
    ASSERT_FALSE(secret);
    EXPECT_EQ(secret.error().sentence,
        "The plim writer was not opted in to sensitive moments. Create it with allowsSensitive: true to record them.");
    EXPECT_FALSE(fs::exists(writer->activePath()));

    auto opted = makeWriter(dir.path(), "plim", SuiteGraphWriter::defaultMaxStreamBytes, true);
    auto recorded = opted->record("note", "Private", std::nullopt, {}, true);
    ASSERT_TRUE(recorded);
    EXPECT_TRUE(recorded->sensitive);

    auto bad = SuiteGraphWriter::create("Plim!", {});
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.error().sentence,
        "\"Plim!\" is not a valid app slug: use lowercase letters and digits only (for example \"plim\").");
}

TEST(SuiteGraphWriter, RepairsATornTailByStartingOnAFreshLine)
{
    TempDir dir;
    auto writer = makeWriter(dir.path());
    const std::string torn = R"({"schemaVersion":1,"ts":"2026-11-14T22:15:44.123Z","app":"plim","ki)";
    writeText(writer->activePath(), torn);
    auto moment = writer->record("recording", "After the tear");
    ASSERT_TRUE(moment);
    std::string text = readText(writer->activePath());
    ASSERT_EQ(text.substr(0, torn.size() + 1), torn + "\n");
    EXPECT_EQ(Moment::fromJsonLine(linesOf(writer->activePath()).at(1)), *moment);

    // A whole last line gets no extra line feed.
    ASSERT_TRUE(writer->record("recording", "Next"));
    EXPECT_EQ(linesOf(writer->activePath()).size(), 3u);
}

TEST(SuiteGraphWriter, RotatesKeepingOneOlderGeneration)
{
    TempDir dir;
    auto probe = Moment{.ts = momentNow(), .app = "plim", .kind = "k", .title = "w0-00"}.jsonLine();
    const uint64_t lineBytes = probe->size() + 1;
    auto writer = makeWriter(dir.path(), "plim", lineBytes * 3);
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(writer->record("k", "w0-" + std::string(i < 10 ? "0" : "") + std::to_string(i)));

    // 10 lines, 3 per generation: the active file holds the last 1, the older the 3 before.
    auto active = linesOf(writer->activePath());
    auto older = linesOf(writer->rotatedPath());
    ASSERT_EQ(active.size(), 1u);
    ASSERT_EQ(older.size(), 3u);
    EXPECT_EQ(Moment::fromJsonLine(older[0])->title, "w0-06");
    EXPECT_EQ(Moment::fromJsonLine(active[0])->title, "w0-09");
    EXPECT_LE(fs::file_size(writer->activePath()), lineBytes * 3);

    // A line larger than the limit still lands, without emptying the older generation.
    auto big = makeWriter(dir.path(), "plim", 10);
    ASSERT_TRUE(big->record("k", "one more"));
    EXPECT_EQ(linesOf(writer->rotatedPath()).size(), 1u);
    EXPECT_EQ(linesOf(writer->activePath()).size(), 1u);
}

TEST(SuiteGraphWriter, AStreamThatCannotBeOpenedIsReportedAndLeftAsItIs)
{
    TempDir dir;
    fs::create_directories(dir / "graph" / "plim.moments.jsonl");
    writeText(dir / "graph" / "plim.moments.jsonl" / "keep", "bytes");
    auto writer = makeWriter(dir / "graph");
    auto status = writer->record("k", "t");
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().sentence, "Could not open the graph stream at " + (dir / "graph/plim.moments.jsonl").string()
            + " for appending (POSIX error 21).");
    EXPECT_EQ(readText(dir / "graph" / "plim.moments.jsonl" / "keep"), "bytes");

    // A graph folder that is a file: nothing is created over it.
    writeText(dir / "file", "not a folder");
    auto blocked = makeWriter(dir / "file");
    auto refused = blocked->record("k", "t");
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().sentence.find("(POSIX error 20)."), std::string::npos);
    EXPECT_EQ(readText(dir / "file"), "not a folder");
}

TEST(SuiteGraphWriter, ThreadsSharingOneWriterNeverInterleave)
{
    TempDir dir;
    auto writer = makeWriter(dir.path());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i)
                EXPECT_TRUE(writer->record("k", "w" + std::to_string(t) + "-" + std::to_string(i)));
        });
    for (auto& thread : threads)
        thread.join();
    std::map<int, int> next;
    for (const auto& line : linesOf(writer->activePath())) {
        auto moment = Moment::fromJsonLine(line);
        ASSERT_TRUE(moment) << line;
        auto [w, n] = titleNumbers(moment->title);
        EXPECT_EQ(n, next[w]++);
    }
    EXPECT_EQ(next, (std::map<int, int>{{0, 100}, {1, 100}, {2, 100}, {3, 100}}));
}

TEST(SuiteGraphWriter, ProcessesWritingAtOnceLoseAndInterleaveNothing)
{
    TempDir dir;
    constexpr int perProcess = 300;
    // Four processes share the plim stream, two more write tovan's.
    bool ok = inChildProcesses(6, [&](int i) {
        auto writer = SuiteGraphWriter::create(i < 4 ? "plim" : "tovan", {false, dir.path()});
        if (!writer)
            return false;
        std::string pad(i * 40, 'x'); // lines of different lengths
        for (int n = 0; n < perProcess; ++n)
            if (!(*writer)->record("k", "w" + std::to_string(i) + "-" + std::to_string(n), pad))
                return false;
        return true;
    });
    ASSERT_TRUE(ok);
    for (std::string app : {"plim", "tovan"}) {
        std::map<int, int> next;
        auto lines = linesOf(dir / (app + ".moments.jsonl"));
        for (const auto& line : lines) {
            auto moment = Moment::fromJsonLine(line);
            ASSERT_TRUE(moment) << "torn or interleaved line: " << line;
            auto [w, n] = titleNumbers(moment->title);
            EXPECT_EQ(n, next[w]++) << "writer " << w << " out of order";
        }
        EXPECT_EQ(lines.size(), (app == "plim" ? 4u : 2u) * perProcess);
        for (auto [w, count] : next)
            EXPECT_EQ(count, perProcess) << app << " writer " << w;
    }
}

TEST(SuiteGraphWriter, ProcessesRotatingAtOnceKeepTheNewestLinesWhole)
{
    TempDir dir;
    constexpr int perProcess = 400;
    constexpr uint64_t maxBytes = 16 * 1024;
    bool ok = inChildProcesses(4, [&](int i) {
        auto writer = SuiteGraphWriter::create("plim", {false, dir.path(), maxBytes});
        if (!writer)
            return false;
        for (int n = 0; n < perProcess; ++n)
            if (!(*writer)->record("k", "w" + std::to_string(i) + "-" + std::to_string(n)))
                return false;
        return true;
    });
    ASSERT_TRUE(ok);

    // What survives is the newest stretch of the common history: whole lines, and each
    // writer still present shows consecutive numbers ending with its last one.
    std::map<int, std::vector<int>> seen;
    for (auto file : {dir / "plim.moments.1.jsonl", dir / "plim.moments.jsonl"}) {
        EXPECT_LE(fs::file_size(file), maxBytes);
        for (const auto& line : linesOf(file)) {
            auto moment = Moment::fromJsonLine(line);
            ASSERT_TRUE(moment) << "torn or interleaved line: " << line;
            auto [w, n] = titleNumbers(moment->title);
            seen[w].push_back(n);
        }
    }
    ASSERT_FALSE(seen.empty());
    EXPECT_GT(fs::file_size(dir / "plim.moments.1.jsonl"), maxBytes / 2);
    for (const auto& [w, numbers] : seen) {
        ASSERT_FALSE(numbers.empty());
        EXPECT_EQ(numbers.back(), perProcess - 1) << "writer " << w;
        for (size_t k = 1; k < numbers.size(); ++k)
            ASSERT_EQ(numbers[k], numbers[k - 1] + 1) << "writer " << w << " lost a line";
    }
}

TEST(SuiteGraphWriter, RetractAndRestoreWriteBookkeepingMomentsNamingTheTarget)
{
    TempDir dir;
    auto writer = makeWriter(dir.path());
    auto target = writer->record("recording", "B", std::nullopt, {}, false, std::nullopt, "ID-1");
    ASSERT_TRUE(target);
    auto now = target->ts + std::chrono::seconds(5);
    auto retracted = writer->retract(target->ts, "ID-1", now);
    ASSERT_TRUE(retracted);
    EXPECT_EQ(retracted->kind, "retracted");
    EXPECT_EQ(retracted->ts, now);
    EXPECT_EQ(retracted->retracts, (Moment::Retraction{"plim", target->ts, "ID-1"}));
    auto restored = writer->restore(target->ts);
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->kind, "restored");
    EXPECT_EQ(restored->retracts, (Moment::Retraction{"plim", target->ts, std::nullopt}));
    auto lines = linesOf(writer->activePath());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(Moment::fromJsonLine(lines[1]), *retracted);
    EXPECT_EQ(Moment::fromJsonLine(lines[2]), *restored);
}
