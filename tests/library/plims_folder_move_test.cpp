#include "library/plims_folder_move.h"
#include "library/storage_root.h"

#include "base/log.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;

namespace {

using Kind = PlimsFolderMove::Outcome::Kind;

struct Videos {
    XdgSandbox sandbox;
    StorageRoot root{sandbox.videos(), "Plim"};
    fs::path legacy = root.legacyFolder();
    fs::path target = root.currentFolder();
    Videos() { fs::create_directories(sandbox.videos()); }
    void legacyLibrary()
    {
        fs::create_directory(legacy);
        writeText(legacy / "B.mov", "movie");
        writeText(legacy / "B.id.json", "{}");
    }
};

// The outcome's sentence is the line that went to the log.
void expectLogged(const LogCapture& log, const PlimsFolderMove::Outcome& outcome, const std::string& line)
{
    EXPECT_EQ(log.lines(), std::vector<std::string>{line});
    EXPECT_TRUE(line == outcome.sentence || line == "Plim: " + outcome.sentence) << outcome.sentence;
}

} // namespace

TEST(PlimsFolderMove, MovesTheLegacyFolderAndLeavesALinkBehind)
{
    Videos v;
    v.legacyLibrary();
    fs::create_directory(v.target); // an empty folder in the way is removed
    EXPECT_TRUE(PlimsFolderMove::legacyIsTheLibrary(v.root));
    {
        LogCapture log;
        auto outcome = PlimsFolderMove::run(v.root);
        EXPECT_EQ(outcome.kind, Kind::moved);
        EXPECT_TRUE(outcome.libraryMoved());
        expectLogged(log, outcome, "Plim: moved the library from Videos/Plims to Videos/Plim (a link keeps the old path working)");
    }
    EXPECT_EQ(readText(v.target / "B.mov"), "movie");
    EXPECT_EQ(readText(v.target / "B.id.json"), "{}");
    ASSERT_TRUE(fs::is_symlink(v.legacy));
    EXPECT_EQ(fs::read_symlink(v.legacy), fs::path("Plim"));
    EXPECT_EQ(readText(v.legacy / "B.mov"), "movie");
    EXPECT_FALSE(PlimsFolderMove::legacyIsTheLibrary(v.root));

    // The next launch finds the link and does nothing.
    LogCapture second;
    EXPECT_EQ(PlimsFolderMove::run(v.root), (PlimsFolderMove::Outcome{Kind::alreadyMoved, {}}));
    EXPECT_TRUE(second.lines().empty());
    EXPECT_TRUE(fs::is_symlink(v.legacy));
    EXPECT_EQ(readText(v.target / "B.mov"), "movie");
}

TEST(PlimsFolderMove, NothingToDoWithoutALegacyFolder)
{
    Videos v;
    fs::create_directory(v.target);
    LogCapture log;
    EXPECT_EQ(PlimsFolderMove::run(v.root).kind, Kind::nothingToDo);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(fs::is_directory(v.target));
    EXPECT_FALSE(fs::exists(fs::symlink_status(v.legacy)));
}

TEST(PlimsFolderMove, ATargetHoldingFilesStopsTheMove)
{
    Videos v;
    v.legacyLibrary();
    fs::create_directory(v.target);
    writeText(v.target / "Other.mov", "other");
    LogCapture log;

    auto outcome = PlimsFolderMove::run(v.root);

    EXPECT_EQ(outcome.kind, Kind::targetHoldsFiles);
    expectLogged(log, outcome, "Plim: Videos/Plim already holds files, so the plims in Videos/Plims were not moved into it. "
                               "Plim keeps using Videos/Plims. To use the new name, move what is in Videos/Plim elsewhere "
                               "and reopen Plim.");
    EXPECT_EQ(readText(v.legacy / "B.mov"), "movie");
    EXPECT_EQ(readText(v.target / "Other.mov"), "other");
    EXPECT_FALSE(fs::exists(v.target / "B.mov"));
    EXPECT_TRUE(PlimsFolderMove::legacyIsTheLibrary(v.root));
}

TEST(PlimsFolderMove, ALegacyFileIsLeftAlone)
{
    Videos v;
    writeText(v.legacy, "not a folder");
    LogCapture log;
    auto outcome = PlimsFolderMove::run(v.root);
    EXPECT_EQ(outcome.kind, Kind::legacyIsFile);
    expectLogged(log, outcome, "Plim: Videos/Plims is a file, not a folder, so Plim did not touch it.");
    EXPECT_EQ(readText(v.legacy), "not a folder");
    EXPECT_FALSE(fs::exists(v.target));
    EXPECT_FALSE(PlimsFolderMove::legacyIsTheLibrary(v.root));
}

TEST(PlimsFolderMove, ALinkToElsewhereStaysTheLibrary)
{
    Videos v;
    fs::path elsewhere = v.sandbox.home() / "Archive";
    fs::create_directory(elsewhere);
    writeText(elsewhere / "B.mov", "movie");
    fs::create_directory_symlink(elsewhere, v.legacy);
    LogCapture log;

    auto outcome = PlimsFolderMove::run(v.root);

    EXPECT_EQ(outcome.kind, Kind::legacyIsLink);
    expectLogged(log, outcome, "Plim: Videos/Plims is a link to " + elsewhere.string()
            + " so it was left as it is and stays the library.");
    EXPECT_EQ(fs::read_symlink(v.legacy), elsewhere);
    EXPECT_EQ(readText(elsewhere / "B.mov"), "movie");
    EXPECT_FALSE(fs::exists(v.target));
    EXPECT_TRUE(PlimsFolderMove::legacyIsTheLibrary(v.root));
}

TEST(PlimsFolderMove, AFailedRenameMovesNothing)
{
    Videos v;
    v.legacyLibrary();
    writeText(v.target, "a file named like the new folder");
    LogCapture log;

    auto outcome = PlimsFolderMove::run(v.root);

    EXPECT_EQ(outcome.kind, Kind::renameFailed);
    expectLogged(log, outcome, "Plim: the library stays in Videos/Plims. Renaming Videos/Plims to Videos/Plim failed "
                               "(Not a directory). Nothing was moved; Plim keeps using Videos/Plims.");
    EXPECT_EQ(readText(v.legacy / "B.mov"), "movie");
    EXPECT_EQ(readText(v.target), "a file named like the new folder");
}

TEST(PlimsFolderMove, AnEmptyTargetThatCannotBeRemovedStopsTheMove)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root removes folders from read-only parents";
    Videos v;
    v.legacyLibrary();
    fs::create_directory(v.target);
    ::chmod(v.root.movies.c_str(), 0555);
    LogCapture log;
    auto outcome = PlimsFolderMove::run(v.root);
    ::chmod(v.root.movies.c_str(), 0755);
    EXPECT_EQ(outcome.kind, Kind::targetInTheWay);
    expectLogged(log, outcome, "Plim: An empty Videos/Plim was in the way and could not be removed (Permission denied). "
                               "Plim keeps using Videos/Plims.");
    EXPECT_EQ(readText(v.legacy / "B.mov"), "movie");
    EXPECT_TRUE(fs::is_directory(v.target));
}

TEST(StorageRoot, UsesTheVideosFolderAndTheLibraryName)
{
    XdgSandbox sandbox;
    LogCapture log;
    StorageRoot root = StorageRoot::direct(sandbox.home());
    EXPECT_EQ(root, (StorageRoot{sandbox.videos(), "Plim"}));
    EXPECT_EQ(root.folder(), sandbox.videos() / "Plim");
    EXPECT_TRUE(log.lines().empty());

    fs::create_directories(sandbox.videos() / "Plims");
    EXPECT_EQ(StorageRoot::direct(sandbox.home()).plimsFolderName, "Plims");
    EXPECT_EQ(StorageRoot::direct(sandbox.home()).folder(), sandbox.videos() / "Plims");

    ASSERT_EQ(PlimsFolderMove::run(root).kind, Kind::moved);
    EXPECT_EQ(StorageRoot::direct(sandbox.home()).plimsFolderName, "Plim");
}

TEST(StorageRoot, FallsBackToHomeVideosAndSaysSo)
{
    XdgSandbox sandbox;
    ScopedEnv noVideos("XDG_VIDEOS_DIR", std::nullopt);
    LogCapture log;
    StorageRoot root = StorageRoot::direct(sandbox.home());
    EXPECT_EQ(root.movies, sandbox.home() / "Videos");
    EXPECT_EQ(log.lines(), std::vector<std::string>{
        "Plim: this computer reported no Videos folder in the user domain, so Plim is filing plims under "
        + sandbox.home().string() + "/Videos instead. Nothing was moved; if plims are missing from the library they "
        "are still in the folder they were recorded into."});
}

TEST(StorageRoot, SentencesNameTheVideosFolderAsItIsCalled)
{
    XdgSandbox sandbox;
    ScopedEnv videos("XDG_VIDEOS_DIR", (sandbox.home() / "Filme").string());
    StorageRoot root = StorageRoot::direct(sandbox.home());
    fs::create_directories(root.legacyFolder());
    writeText(root.currentFolder(), "x");
    EXPECT_EQ(PlimsFolderMove::run(root).sentence, "Plim: the library stays in Filme/Plims. Renaming Filme/Plims to "
                                                   "Filme/Plim failed (Not a directory). Nothing was moved; Plim keeps using Filme/Plims.");
}
