#include "suite/graph_reader.h"
#include "suite/graph_writer.h"

#include "testkit/testkit.h"

#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;
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
