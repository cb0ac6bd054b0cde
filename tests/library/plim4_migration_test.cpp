#include "library/plim4_migration.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;
using Kind = Plim4Migration::Standing::Kind;

TEST(Plim4Migration, AFinishedVideoWithoutItsRecordingPlaysButCannotBeEdited)
{
    TempDir dir;
    writeText(dir / "B.staged.mov", "movie");
    auto standing = Plim4Migration::standing(dir / "B.mov");
    ASSERT_TRUE(standing);
    EXPECT_EQ(standing->kind, Kind::finishedOnly);
    EXPECT_EQ(standing->playURL, dir / "B.staged.mov");
    EXPECT_FALSE(standing->isEditable);
    EXPECT_FALSE(standing->canAutoEdit);
    EXPECT_EQ(standing->notes,
        std::vector<std::string>{"Only the finished video of this plim is left: Plim 3 deleted the original recording "
                                 "after staging it (Keep raw originals was off). It plays and shares as it is, but "
                                 "there is nothing left to edit."});
}

TEST(Plim4Migration, RecordingsAreEditableAndSayWhatTheirEditsFilesHold)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    writeText(movie, "movie");

    auto plain = Plim4Migration::standing(movie);
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->kind, Kind::editable);
    EXPECT_EQ(plain->playURL, movie);
    EXPECT_TRUE(plain->isEditable);
    EXPECT_TRUE(plain->notes.empty());

    writeText(dir / "B.stage.json", R"({"paddingPX": 40})");
    auto project = Plim4Migration::standing(movie);
    ASSERT_TRUE(project);
    EXPECT_EQ(project->kind, Kind::plim3Project);
    EXPECT_EQ(project->projectURL, dir / "B.stage.json");
    EXPECT_TRUE(project->isEditable);
    EXPECT_TRUE(project->canAutoEdit);
    ASSERT_EQ(project->notes.size(), 1u);

    const std::string newer = R"({"version": 5, "writtenBy": "Plim 7.1"})";
    writeText(dir / "B.edits.json", newer);
    writeText(dir / "B.staged.mov", "finished");
    auto refused = Plim4Migration::standing(movie);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->kind, Kind::newerEdits);
    EXPECT_EQ(refused->playURL, dir / "B.staged.mov");
    ASSERT_EQ(refused->notes.size(), 1u);
    EXPECT_NE(refused->notes[0].find("was saved by Plim 7.1"), std::string::npos);
    EXPECT_EQ(readText(dir / "B.edits.json"), newer);

    writeText(dir / "B.edits.json", "{");
    auto unreadable = Plim4Migration::standing(movie);
    ASSERT_TRUE(unreadable);
    EXPECT_EQ(unreadable->kind, Kind::editable);
    ASSERT_EQ(unreadable->notes.size(), 1u);
    EXPECT_NE(unreadable->notes[0].find("falls back to its automatic edit"), std::string::npos);
    EXPECT_EQ(readText(dir / "B.edits.json"), "{");
}

TEST(Plim4Migration, APlimWithNoMovieLeftIsAFailureSentence)
{
    TempDir dir;
    auto standing = Plim4Migration::standing(dir / "Gone.mov");
    ASSERT_FALSE(standing);
    EXPECT_NE(standing.error().sentence.find("Neither Gone.mov nor its finished video Gone.staged.mov"),
        std::string::npos);
    EXPECT_TRUE(fs::is_empty(dir.path()));
}
