#include "suite/graph_reader.h"
#include "suite/graph_writer.h"

#include "testkit/testkit.h"

#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;
using std::chrono::seconds;

namespace {

Moment::Instant at(std::string_view text) { return parseMomentTime(text).value(); }

std::string line(std::string_view app, std::string_view ts, std::string_view title, std::string_view kind = "k")
{
    return Moment{.ts = at(ts), .app = std::string(app), .kind = std::string(kind), .title = std::string(title)}
        .jsonLine()
        .value();
}

std::vector<std::string> titles(const std::vector<Moment>& moments)
{
    std::vector<std::string> out;
    for (const auto& m : moments)
        out.push_back(m.title);
    return out;
}

std::vector<std::string> collectLines(ChainedLineReader& reader)
{
    std::vector<std::string> out;
    while (auto l = reader.next())
        out.push_back(l->text);
    return out;
}

} // namespace

TEST(ChainedLineReader, ReadsAcrossChunksAndFilesAndDropsOversizedLinesWhole)
{
    TempDir dir;
    std::string longLine(ChainedLineReader::chunkBytes + 10, 'a'); // spans two chunks
    writeText(dir / "one", "first\n" + longLine + "\n\nno line feed at the end");
    writeText(dir / "two", "second file\n");
    ChainedLineReader reader({dir / "one", dir / "absent", dir / "two"});
    EXPECT_EQ(collectLines(reader),
        (std::vector<std::string>{"first", longLine, "no line feed at the end", "second file"}));
    for (const auto& report : reader.reports())
        EXPECT_FALSE(report.unreadable);

    std::string tooLong(300, 'z');
    writeText(dir / "three", "ok 1\n" + tooLong + "\nok 2\n" + tooLong);
    ChainedLineReader limited({dir / "three", dir / "two"}, 100);
    auto lines = collectLines(limited);
    EXPECT_EQ(lines, (std::vector<std::string>{"ok 1", "ok 2", "second file"}));
    EXPECT_EQ(limited.reports()[0].oversizedLines, 2u);

    // A line far longer than the limit is dropped without being held in memory whole.
    writeText(dir / "four", std::string(5 * ChainedLineReader::chunkBytes, 'q') + "\nafter\n");
    ChainedLineReader bounded({dir / "four"}, 1000);
    EXPECT_EQ(collectLines(bounded), (std::vector<std::string>{"after"}));
    EXPECT_EQ(bounded.reports()[0].oversizedLines, 1u);
}

TEST(SuiteGraphReader, MergesStreamsByInstantWithTheSmallerSlugFirstOnTies)
{
    TempDir dir;
    writeText(dir / "tovan.moments.jsonl",
        line("tovan", "2026-11-14T10:00:01.000Z", "t1") + "\n" + line("tovan", "2026-11-14T10:00:05.000Z", "t2") + "\n");
    writeText(dir / "plim.moments.1.jsonl", line("plim", "2026-11-14T10:00:00.000Z", "p-old") + "\n");
    writeText(dir / "plim.moments.jsonl",
        line("plim", "2026-11-14T10:00:05.000Z", "p-tie") + "\n" + line("plim", "2026-11-14T10:00:09Z", "p-last") + "\n");
    writeText(dir / "sorvel.moments.jsonl", line("sorvel", "2026-11-14T10:00:02Z", "s1") + "\n");
    writeText(dir / "notes.txt", "not a stream");
    writeText(dir / "Bad-Slug.moments.jsonl", line("x", "2026-11-14T10:00:02Z", "never") + "\n");

    SuiteGraphReader reader(dir.path());
    EXPECT_EQ(reader.appsPresent(), (std::vector<std::string>{"plim", "sorvel", "tovan"}));
    auto all = reader.moments({}).collect();
    EXPECT_EQ(titles(all), (std::vector<std::string>{"p-old", "t1", "s1", "p-tie", "t2", "p-last"}));

    MomentQuery onlyTovan{.apps = std::set<std::string>{"tovan"}};
    EXPECT_EQ(titles(reader.moments(onlyTovan).collect()), (std::vector<std::string>{"t1", "t2"}));

    // The iterator reads lazily: a moment appended after it was made still comes out.
    auto it = reader.moments({}).makeIterator();
    EXPECT_EQ(it.next()->title, "p-old");
    auto writer = SuiteGraphWriter::create("plim", {false, dir.path()});
    ASSERT_TRUE((*writer)->record("k", "p-appended", std::nullopt, {}, false, at("2026-11-14T10:00:10Z")));
    std::vector<std::string> rest;
    while (auto m = it.next())
        rest.push_back(m->title);
    EXPECT_EQ(rest, (std::vector<std::string>{"t1", "s1", "p-tie", "t2", "p-last", "p-appended"}));
}

TEST(SuiteGraphReader, HonoursRetractionsAndRestorationsFromEveryStream)
{
    TempDir dir;
    auto plim = std::move(*SuiteGraphWriter::create("plim", {false, dir.path()}));
    auto base = at("2026-11-14T10:00:00Z");
    auto kept = plim->record("recording", "kept", std::nullopt, {}, false, base);
    auto hidden = plim->record("recording", "hidden", std::nullopt, {}, false, base + seconds(1), "ID-H");
    auto back = plim->record("recording", "back", std::nullopt, {}, false, base + seconds(2));
    auto bySource = plim->record("recording", "by source", std::nullopt, {}, false, base + seconds(3), "ID-S");
    ASSERT_TRUE(kept && hidden && back && bySource);
    ASSERT_TRUE(plim->retract(hidden->ts, std::nullopt, base + seconds(10)));
    ASSERT_TRUE(plim->retract(back->ts, std::nullopt, base + seconds(11)));
    ASSERT_TRUE(plim->restore(back->ts, std::nullopt, base + seconds(12)));
    ASSERT_TRUE(plim->retract(base - seconds(99), "ID-S", base + seconds(13)));

    SuiteGraphReader reader(dir.path());
    EXPECT_EQ(titles(reader.moments({}).collect()), (std::vector<std::string>{"kept", "back"}));
    EXPECT_EQ(titles(reader.moments({}, false).collect()),
        (std::vector<std::string>{"kept", "hidden", "back", "by source"}));

    MomentQuery bookkeeping{.kinds = std::set<std::string>{"retracted", "restored"}};
    auto marks = reader.moments(bookkeeping).collect();
    ASSERT_EQ(marks.size(), 4u);
    EXPECT_EQ(marks[2].kind, "restored");

    auto index = reader.retractions();
    EXPECT_TRUE(index.claims(*hidden));
    EXPECT_FALSE(index.claims(*back));
    EXPECT_TRUE(index.claims(*bySource));
}

TEST(SuiteGraphReader, SkipsWhatIsNotAMomentAndLeavesEveryFileAsItWas)
{
    TempDir dir;
    const std::string plimText = line("plim", "2026-11-14T10:00:00.000Z", "good 1") + "\n" + "not json at all\n"
        + "{\"ts\":\"2026-11-14T10:00:01Z\"}\n" + std::string("\xFF\xFE\x00\x01 binary\n", 12)
        + line("plim", "2026-11-14T10:00:02Z", "whole second") + "\n"
        + R"({"schemaVersion":1,"ts":"2026-11-14T10:00:03.000Z","app":"plim","ki)";
    writeText(dir / "plim.moments.jsonl", plimText);
    fs::create_directories(dir / "tovan.moments.jsonl"); // cannot be read as a file
    writeText(dir / "sorvel.moments.jsonl", line("sorvel", "2026-11-14T10:00:01Z", "sorvel") + "\n");
    std::string hugeLine = "{\"title\":\"" + std::string(3000, 'h') + "\"}\n";
    writeText(dir / "sorvel.moments.1.jsonl", hugeLine);

    SuiteGraphReader reader(dir.path(), 2048);
    std::vector<StreamFileIssue> issues;
    auto moments = reader.moments({}).collect(&issues);
    EXPECT_EQ(titles(moments), (std::vector<std::string>{"good 1", "sorvel", "whole second"}));
    EXPECT_EQ(moments[2].ts, at("2026-11-14T10:00:02.000Z"));

    ASSERT_EQ(issues.size(), 3u);
    EXPECT_EQ(issues[0].file, dir / "plim.moments.jsonl");
    EXPECT_EQ(issues[0].brokenLines, 4u);
    EXPECT_EQ(issues[0].sentence(), "Skipped 4 lines of the moment stream " + (dir / "plim.moments.jsonl").string()
            + " that are not whole moments; the file was left as it is and its other moments are shown.");
    EXPECT_EQ(issues[1].file, dir / "sorvel.moments.1.jsonl");
    EXPECT_EQ(issues[1].brokenLines, 1u);
    EXPECT_EQ(issues[2].file, dir / "tovan.moments.jsonl");
    ASSERT_TRUE(issues[2].unreadable);
    EXPECT_EQ(issues[2].sentence(), "Could not read the moment stream " + (dir / "tovan.moments.jsonl").string()
            + " (Is a directory); its moments are left out and the file was left as it is.");

    EXPECT_EQ(readText(dir / "plim.moments.jsonl"), plimText);
    EXPECT_EQ(readText(dir / "sorvel.moments.1.jsonl"), hugeLine);
    EXPECT_TRUE(fs::is_directory(dir / "tovan.moments.jsonl"));

    // An empty or missing graph folder is simply empty.
    EXPECT_TRUE(SuiteGraphReader(dir / "nowhere").moments({}).collect().empty());
    EXPECT_TRUE(SuiteGraphReader(dir / "nowhere").appsPresent().empty());
}
