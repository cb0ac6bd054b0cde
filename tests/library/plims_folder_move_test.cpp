#include "library/plims_folder_move.h"
#include "library/storage_root.h"

#include "base/log.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>

using namespace plim;
using namespace plim::testkit;

namespace {

using Kind = PlimsFolderMove::Outcome::Kind;
// What lies under the home folder: a path's bytes, "/" for a folder, or "-> target" for a link.
using Tree = std::map<std::string, std::string>;

struct Home {
    XdgSandbox sandbox;
    StorageRoot root{sandbox.videos(), "Plim"};
    explicit Home(const Tree& tree)
    {
        for (const auto& [path, what] : tree) {
            fs::path at = sandbox.home() / path;
            fs::create_directories(at.parent_path());
            if (what == "/")
                fs::create_directory(at);
            else if (what.starts_with("-> "))
                fs::create_directory_symlink(what.substr(3), at);
            else
                writeText(at, what);
        }
    }
    Tree tree() const
    {
        Tree out;
        for (const auto& entry : fs::recursive_directory_iterator(sandbox.home()))
            out[entry.path().lexically_relative(sandbox.home()).string()] = entry.is_symlink()
                ? "-> " + fs::read_symlink(entry.path()).string()
                : (entry.is_directory() ? "/" : readText(entry.path()));
        return out;
    }
};

} // namespace

TEST(PlimsFolderMove, MovesTheLegacyFolderAndLeavesALinkBehind)
{
    Home home({{"Videos/Plims/B.mov", "movie"}, {"Videos/Plim", "/"}}); // an empty folder in the way is removed
    EXPECT_TRUE(PlimsFolderMove::legacyIsTheLibrary(home.root));
    LogCapture log;
    auto outcome = PlimsFolderMove::run(home.root);
    EXPECT_EQ(outcome.kind, Kind::moved);
    EXPECT_TRUE(outcome.libraryMoved());
    EXPECT_EQ(log.lines(), std::vector<std::string>{outcome.sentence});
    EXPECT_EQ(outcome.sentence, "Plim: moved the library from Videos/Plims to Videos/Plim (a link keeps the old path working)");
    const Tree moved{{"Videos", "/"}, {"Videos/Plim", "/"}, {"Videos/Plim/B.mov", "movie"}, {"Videos/Plims", "-> Plim"}};
    EXPECT_EQ(home.tree(), moved);
    EXPECT_FALSE(PlimsFolderMove::legacyIsTheLibrary(home.root));

    // The next launch finds the link and does nothing.
    EXPECT_EQ(PlimsFolderMove::run(home.root), (PlimsFolderMove::Outcome{Kind::alreadyMoved, {}}));
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(home.tree(), moved);
}

TEST(PlimsFolderMove, AnyOtherLayoutIsLeftExactlyAsItIsAndSaysWhy)
{
    const std::string keeps = "Plim keeps using Videos/Plims.";
    const std::string library = "Videos/Plims/B.mov";
    struct Case {
        Kind kind;
        Tree tree;
        std::string line; // logged: the outcome's sentence, with "Plim: " in front when it lacks it
        bool legacyStaysTheLibrary;
    };
    for (const Case& c : std::vector<Case>{{Kind::nothingToDo, {{"Videos/Plim", "/"}}, "", false},
             {Kind::legacyIsFile, {{"Videos/Plims", "a file"}}, "Plim: Videos/Plims is a file, not a folder, so Plim "
                 "did not touch it.", false},
             {Kind::legacyIsLink, {{"Archive/B.mov", "movie"}, {"Videos/Plims", "-> ../Archive"}}, "Plim: Videos/Plims "
                 "is a link to ../Archive so it was left as it is and stays the library.", true},
             {Kind::targetHoldsFiles, {{library, "movie"}, {"Videos/Plim/Other.mov", "other"}}, "Plim: Videos/Plim "
                 "already holds files, so the plims in Videos/Plims were not moved into it. " + keeps + " To use the "
                 "new name, move what is in Videos/Plim elsewhere and reopen Plim.", true},
             {Kind::renameFailed, {{library, "movie"}, {"Videos/Plim", "a file"}}, "Plim: the library stays in "
                 "Videos/Plims. Renaming Videos/Plims to Videos/Plim failed (Not a directory). Nothing was moved; " + keeps,
                 true}}) {
        SCOPED_TRACE(c.line);
        Home home(c.tree);
        const Tree before = home.tree();
        LogCapture log;
        auto outcome = PlimsFolderMove::run(home.root);
        EXPECT_EQ(outcome.kind, c.kind);
        EXPECT_FALSE(outcome.libraryMoved());
        EXPECT_EQ(log.lines(), c.line.empty() ? std::vector<std::string>{} : std::vector{c.line});
        EXPECT_TRUE(c.line == outcome.sentence || c.line == "Plim: " + outcome.sentence) << outcome.sentence;
        EXPECT_EQ(home.tree(), before);
        EXPECT_EQ(PlimsFolderMove::legacyIsTheLibrary(home.root), c.legacyStaysTheLibrary);
    }
}

TEST(PlimsFolderMove, AnEmptyTargetThatCannotBeRemovedStopsTheMove)
{
    if (rerunUnprivileged())
        return;
    Home home({{"Videos/Plims/B.mov", "movie"}, {"Videos/Plim", "/"}});
    const Tree before = home.tree();
    ::chmod(home.root.movies.c_str(), 0555);
    LogCapture log;
    auto outcome = PlimsFolderMove::run(home.root);
    ::chmod(home.root.movies.c_str(), 0755);
    EXPECT_EQ(outcome.kind, Kind::targetInTheWay);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Plim: An empty Videos/Plim was in the way and could not be "
                                                    "removed (Permission denied). Plim keeps using Videos/Plims."});
    EXPECT_EQ(home.tree(), before);
}

TEST(StorageRoot, UsesTheVideosFolderAndNamesItAsItIsCalled)
{
    Home home(Tree{{"Videos/Plims", "/"}});
    LogCapture log;
    EXPECT_EQ(StorageRoot::direct(home.sandbox.home()), (StorageRoot{home.sandbox.videos(), "Plims"}));
    ASSERT_EQ(PlimsFolderMove::run(home.root).kind, Kind::moved);
    EXPECT_EQ(StorageRoot::direct(home.sandbox.home()), (StorageRoot{home.sandbox.videos(), "Plim"}));
    EXPECT_EQ(log.lines().size(), 1u); // only the move

    ScopedEnv videos("XDG_VIDEOS_DIR", (home.sandbox.home() / "Filme").string());
    StorageRoot filme = StorageRoot::direct(home.sandbox.home());
    fs::create_directories(filme.legacyFolder());
    writeText(filme.currentFolder(), "x");
    EXPECT_EQ(PlimsFolderMove::run(filme).sentence, "Plim: the library stays in Filme/Plims. Renaming Filme/Plims to "
                                                    "Filme/Plim failed (Not a directory). Nothing was moved; Plim keeps using Filme/Plims.");
}

TEST(StorageRoot, FallsBackToHomeVideosAndSaysSo)
{
    XdgSandbox sandbox;
    ScopedEnv noVideos("XDG_VIDEOS_DIR", std::nullopt);
    LogCapture log;
    EXPECT_EQ(StorageRoot::direct(sandbox.home()).movies, sandbox.home() / "Videos");
    EXPECT_EQ(log.lines(), std::vector<std::string>{
        "Plim: this computer reported no Videos folder in the user domain, so Plim is filing plims under "
        + sandbox.home().string() + "/Videos instead. Nothing was moved; if plims are missing from the library they "
        "are still in the folder they were recorded into."});
}
