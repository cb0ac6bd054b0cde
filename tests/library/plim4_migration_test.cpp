#include "library/plim4_migration.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;
using Standing = Plim4Migration::Standing;
using Kind = Standing::Kind;

TEST(Plim4Migration, WhatIsLeftOfAPlimDecidesHowItStands)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    auto gone = Plim4Migration::standing(movie);
    ASSERT_FALSE(gone);
    EXPECT_EQ(gone.error().sentence, "Neither B.mov nor its finished video B.staged.mov is in the plims folder any "
                                     "more, so there is nothing to play or edit. Nothing was changed; if the files "
                                     "were moved, put them back in the plims folder.");
    EXPECT_TRUE(fs::is_empty(dir.path()));

    writeText(dir / "B.staged.mov", "finished");
    EXPECT_EQ(Plim4Migration::standing(movie),
        (Standing{Kind::finishedOnly, dir / "B.staged.mov", false, false, std::nullopt,
            {"Only the finished video of this plim is left: Plim 3 deleted the original recording after staging it "
             "(Keep raw originals was off). It plays and shares as it is, but there is nothing left to edit."}}));

    writeText(movie, "movie");
    EXPECT_EQ(Plim4Migration::standing(movie), (Standing{Kind::editable, movie}));

    writeText(dir / "B.stage.json", R"({"paddingPX": 40})");
    EXPECT_EQ(Plim4Migration::standing(movie),
        (Standing{Kind::plim3Project, movie, true, true, dir / "B.stage.json",
            {"This plim was made by Plim 3. Its look is read from B.stage.json, which is left as it is, and its edits "
             "start from the automatic edit."}}));
}

TEST(Plim4Migration, EditsThatCannotBeReadAreNamedAndLeftAsTheyAre)
{
    TempDir dir;
    fs::path movie = dir / "B.mov";
    writeText(movie, "movie");
    writeText(dir / "B.staged.mov", "finished");
    for (auto [bytes, kind, playURL, says] : std::vector<std::tuple<std::string, Kind, fs::path, std::string>>{
             {R"({"version": 5, "writtenBy": "Plim 7.1"})", Kind::newerEdits, dir / "B.staged.mov", "was saved by Plim 7.1"},
             {"{", Kind::editable, movie, "falls back to its automatic edit"}}) {
        SCOPED_TRACE(bytes);
        writeText(dir / "B.edits.json", bytes);
        auto standing = Plim4Migration::standing(movie);
        ASSERT_TRUE(standing);
        EXPECT_EQ(std::tuple(standing->kind, standing->playURL, standing->isEditable), std::tuple(kind, playURL, true));
        ASSERT_EQ(standing->notes.size(), 1u);
        EXPECT_NE(standing->notes[0].find(says), std::string::npos);
        EXPECT_EQ(readText(dir / "B.edits.json"), bytes);
    }
}
