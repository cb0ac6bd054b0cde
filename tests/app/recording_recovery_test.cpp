// What recovery leaves alone: a recording whose process still runs, and every file of one
// that cannot be recovered. The recovery of a killed recording is in record_test.cpp.

#include "app/recording_recovery.h"

#include "capture/recording_marker.h"
#include "media/movie_reader.h"
#include "media/movie_writer.h"
#include "testkit/test_movies.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

namespace plim {
namespace {

using namespace testkit;

TEST(RecordingRecovery, LeavesRollingAndUnrecoverableRecordingsAsTheyAre)
{
    TempDir library;
    auto markFor = [&](const std::string& name, std::string bootID) {
        RecordingMarker marker = RecordingMarker::ofThisProcess(true);
        if (!bootID.empty())
            marker.bootID = std::move(bootID);
        ASSERT_TRUE(marker.write(library / (name + ".mov")));
    };
    // Rolling in this very process: nothing to do.
    writeText(library / "Rolling.mov", std::string(4096, 'r'));
    markFor("Rolling", "");
    // Written in another boot, so its process is gone whatever runs under its pid now.
    std::string garbage(70000, '\0');
    for (size_t i = 0; i < garbage.size(); ++i)
        garbage[i] = char(i * 7919 % 251);
    writeText(library / "Damaged.mov", garbage);
    writeText(library / "Damaged.cursor.journal", "{\"samples\": [\n");
    markFor("Damaged", "another-boot");
    writeText(library / "Early.mov", std::string("\0\0\0\x14" "ftypqt  \0\0\x02\0qt  ", 20));
    markFor("Early", "another-boot");
    markFor("Gone", "another-boot");
    writeText(library / "Odd.rolling.json", "{\"pid\": \"twelve\"}");

    auto before = folderContents(library.path());
    auto sentences = recoverAbandonedRecordings(library.path());
    ASSERT_EQ(sentences.size(), 4u) << ::testing::PrintToString(sentences);
    const std::string folder = library.path().string();
    EXPECT_TRUE(sentences[0].starts_with("Plim was closed while recording \"Damaged\", and it could not be recovered: "))
        << sentences[0];
    EXPECT_TRUE(sentences[0].ends_with(" Its files were left as they are in " + folder
        + ": move them out of the library folder to keep them, or delete them."))
        << sentences[0];
    EXPECT_EQ(sentences[1], "Plim was closed while recording \"Early\" before its first 2 seconds were saved, so nothing "
                            "of it could be kept; its files were left as they are in " + folder
            + ": delete them with the file manager.");
    EXPECT_EQ(sentences[2], "The recording \"Gone\" was cut off before its movie was made, or the movie has been moved "
                            "away since; there was nothing to recover.");
    EXPECT_EQ(sentences[3], "Plim could not tell whether \"Odd\" is still being recorded, because Odd.rolling.json could "
                            "not be read (it names no process); it was left as it is.");
    // Only the marker of the movie that was never made is gone; every other byte stays.
    before.erase("Gone.rolling.json");
    EXPECT_EQ(folderContents(library.path()), before);
}

TEST(RecordingRecovery, AFragmentCutOffWhileBeingWrittenIsTakenOffTheMovie)
{
    TempDir library;
    const fs::path movie = library / "Cut.mov";
    {
        auto writer = MovieWriter::create(MovieWriter::Settings::recording(movie, 320, 200, 30));
        ASSERT_TRUE(writer) << writer.error().sentence;
        Image grey = Image::allocate(320, 200);
        std::fill(grey.row(0), grey.row(0) + grey.stride * grey.height, uint8_t(0x80));
        for (int i = 0; i < 150; ++i)
            ASSERT_TRUE((*writer)->appendVideo(grey, i / 30.0));
    } // dropped unfinished, as a kill leaves it: the whole fragments stay
    const std::string whole = readText(movie);
    const size_t lastFragment = whole.rfind("moof") - 4;
    writeText(movie, whole + whole.substr(lastFragment, (whole.size() - lastFragment) / 2));
    RecordingMarker marker = RecordingMarker::ofThisProcess(false);
    marker.bootID = "another-boot";
    ASSERT_TRUE(marker.write(movie));

    auto sentences = recoverAbandonedRecordings(library.path());
    ASSERT_EQ(sentences.size(), 1u);
    EXPECT_EQ(sentences[0], "Plim was closed while recording \"Cut\"; the 0:04 recorded up to then were saved. Lost "
                            "with the closing were up to 2 seconds of picture and sound. Its last fragment, cut off "
                            "while it was being written, was taken off the movie. Its pointer, clicks and marks had not "
                            "been saved yet, so it has none.");
    EXPECT_EQ(readText(movie), whole);
    auto reader = MovieReader::create(movie);
    ASSERT_TRUE(reader);
    int pictures = 0;
    while (auto picture = (*reader)->next()) {
        if (!*picture)
            break;
        ++pictures;
    }
    EXPECT_EQ(pictures, 120);
    EXPECT_FALSE((*reader)->wasCutShort());
    EXPECT_FALSE(fs::exists(RecordingMarker::fileBeside(movie)));
}

} // namespace
} // namespace plim
