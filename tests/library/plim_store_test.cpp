#include "base/clock.h"
#include "base/files.h"
#include "library/plim_identity.h"
#include "library/plim_store.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <thread>

using namespace plim;
using namespace plim::testkit;

namespace {

std::vector<std::string> ids(const std::vector<PlimRecord>& records)
{
    std::vector<std::string> out;
    for (const PlimRecord& record : records)
        out.push_back(record.id);
    return out;
}

// Files are written a little apart so their creation dates order them.
void writeApart(const fs::path& path, const std::string& text)
{
    writeText(path, text);
    std::this_thread::sleep_for(std::chrono::milliseconds(15));
}

// A store over a folder of the test's own, its clock moved by hand, in a home of its own.
struct PlimStoreTest : ::testing::Test {
    XdgSandbox sandbox;
    TempDir dir;
    ManualClock clock;
    PlimStore store{dir.path(), clock};
};

} // namespace

TEST(PlimStore, GroupsByBaseNameAndHidesPartialFiles)
{
    const fs::path f = "/lib";
    auto groups = PlimStore::groupMovies({"A.camera.mov", "A.cursor.json", "A.mov", "A.staged.mov", "B.partial-1A2B3C4D.mp4",
                                             "B.staged.mov", "C.camera.mov", "D.mp4", "E.mov.partial-replaced", "notes.txt"},
        f);
    ASSERT_EQ(groups.size(), 4u);
    EXPECT_EQ(groups["A"].raw, f / "A.mov");
    EXPECT_EQ(groups["A"].staged, f / "A.staged.mov");
    EXPECT_EQ(groups["A"].camera, f / "A.camera.mov");
    EXPECT_TRUE(groups["A"].displayIsRawMaster);
    EXPECT_EQ(groups["B"].raw, std::nullopt);
    EXPECT_EQ(groups["B"].staged, f / "B.staged.mov");
    EXPECT_FALSE(groups["B"].displayIsRawMaster);
    EXPECT_EQ(groups["C"].camera, f / "C.camera.mov");
    EXPECT_EQ(groups["D"].raw, f / "D.mp4");
}

TEST_F(PlimStoreTest, ListsNewestFirstWithSizesAndCamera)
{
    writeApart(dir / "Old.mov", "old movie");
    writeApart(dir / "Mid.mov", "middle");
    writeApart(dir / "New.mov", "the newest one");
    for (auto [name, text] : std::vector<std::pair<const char*, const char*>>{{"Mid.staged.mov", "staged!"},
             {"Mid.camera.mov", "cam"}, {"Mid.cursor.json", "{}"}, {"New.partial-0000ABCD.mp4", "in progress"},
             {"Lonely.camera.mov", "camera only"}})
        writeText(dir / name, text);

    store.refresh();
    auto plims = store.plims();
    ASSERT_EQ(ids(plims), (std::vector<std::string>{"New", "Mid", "Old"}));
    const PlimRecord& mid = plims[1];
    EXPECT_EQ(mid.rawBytes, 6);
    EXPECT_EQ(mid.stagedBytes, 7);
    EXPECT_EQ(mid.cameraBytes, 3);
    EXPECT_EQ(mid.cameraURL, dir / "Mid.camera.mov");
    EXPECT_TRUE(mid.hasCursorTrack);
    EXPECT_FALSE(plims[0].hasCursorTrack);
    EXPECT_EQ(store.reconcileCount(), 1);
    EXPECT_FALSE(store.takeNotices().empty()); // the minted identities are reported once
    store.refresh();
    EXPECT_EQ(store.reconcileCount(), 1); // nothing changed: no second reconcile
    EXPECT_TRUE(store.takeNotices().empty());
    EXPECT_EQ(store.plims(), plims);

    // An unreadable folder keeps the previous list.
    fs::rename(dir.path(), dir.path().string() + ".away");
    store.refresh();
    EXPECT_EQ(ids(store.plims()), ids(plims));
    fs::rename(dir.path().string() + ".away", dir.path());
}

TEST_F(PlimStoreTest, EveryRawMovieGetsAnIdentityAndASharedNameIsSaid)
{
    for (const char* name : {"C.mp4", "C.mov", "H.mp4", "I.MOV"})
        writeText(dir / name, name);
    store.refresh();
    auto plims = store.plims();
    ASSERT_EQ(plims.size(), 3u);
    for (const PlimRecord& record : plims) {
        ASSERT_TRUE(record.identity) << record.id;
        EXPECT_EQ(PlimIdentity::read(record.id, dir.path()).value_or(PlimIdentity{}).uuid, *record.identity);
    }
    auto c = std::find_if(plims.begin(), plims.end(), [](const PlimRecord& r) { return r.id == "C"; });
    ASSERT_NE(c, plims.end());
    EXPECT_EQ(c->rawURL, dir / "C.mov");
    const auto notices = store.takeNotices();
    EXPECT_EQ(std::count(notices.begin(), notices.end(),
                  "\"C.mp4\" has the same name as \"C.mov\", so the two would share their edits, tracks and permanent id; "
                  "the library lists \"C.mov\" and leaves \"C.mp4\" out. Nothing was changed or lost: rename \"C.mp4\" (to "
                  "\"C 2.mp4\", for example) and it is listed as a plim of its own."),
        1);
    store.refresh();
    EXPECT_TRUE(store.takeNotices().empty());
    EXPECT_TRUE(fs::exists(dir / "C.mp4"));
}

TEST_F(PlimStoreTest, StrandedIdentitiesSurviveTheGraceAndGoAfterIt)
{
    TempDir elsewhere;
    writeApart(dir / "Moved.mov", "footage");
    writeApart(dir / "Gone.mov", "footage 2");
    store.refresh();
    const std::string moved = *store.plims()[1].identity;
    auto refreshAcross = [&](int seconds) {
        store.refresh();
        clock.advance(seconds);
        store.refresh();
    };

    // Moved out and back within the grace: the identity stays.
    fs::rename(dir / "Moved.mov", elsewhere / "Moved.mov");
    fs::rename(dir / "Gone.mov", elsewhere / "Gone.mov");
    refreshAcross(599);
    EXPECT_TRUE(fs::exists(dir / "Moved.id.json"));
    fs::rename(elsewhere / "Moved.mov", dir / "Moved.mov");
    refreshAcross(10); // Gone's identity has now been stranded 609 s
    EXPECT_TRUE(fs::exists(dir / "Moved.id.json"));
    EXPECT_EQ(store.plims().at(0).identity, moved);
    EXPECT_FALSE(fs::exists(dir / "Gone.id.json"));

    // Moved's identity, stranded afresh, gets a full grace of its own.
    fs::rename(dir / "Moved.mov", elsewhere / "Moved.mov");
    refreshAcross(300);
    EXPECT_TRUE(fs::exists(dir / "Moved.id.json"));
    clock.advance(301);
    store.refresh();
    EXPECT_FALSE(fs::exists(dir / "Moved.id.json"));
    EXPECT_TRUE(store.plims().empty());
}

TEST_F(PlimStoreTest, OnlyParkedMoviesGoToTheTrashWithASentence)
{
    const std::string parked = parkedSibling(dir / "Demo.mov").filename().string();
    writeText(dir / parked, "a finished file");
    // Names that only look like it are the user's own and stay.
    const std::vector<std::string> kept = {"why-partial-replaced-happens.txt", "Demo.partial-replaced.mov",
        "Demo.partial-replaced-1a2b3c4.mov", "Demo.partial-replaced-1A2B3C4D.mov", parkedSibling(dir / "notes.txt").filename().string()};
    for (const auto& name : kept)
        writeText(dir / name, "the user's");
    const fs::path photos = parkedSibling(dir / "Photos.mov");
    fs::create_directory(photos);
    store.refresh();
    EXPECT_FALSE(fs::exists(dir / parked));
    EXPECT_EQ(readText(sandbox.home() / ".local/share/Trash/files" / parked), "a finished file");
    EXPECT_EQ(store.takeNotices(), (std::vector<std::string>{"\"" + parked + "\" is a finished file a publish left "
                                       "parked (the render that was replacing it never landed), so it was moved to the Trash "
                                       "rather than deleted."}));
    for (const auto& name : kept)
        EXPECT_EQ(readText(dir / name), "the user's") << name;
    EXPECT_TRUE(fs::is_directory(photos));
}

TEST_F(PlimStoreTest, TheFolderWatchRefreshesTheList)
{
    store.refresh();
    std::mutex lock;
    std::condition_variable changed;
    int changes = 0;
    ASSERT_TRUE(store.startWatching([&] {
        std::lock_guard hold(lock);
        ++changes;
        changed.notify_all();
    }));
    writeText(dir / "Fresh.mov", "new footage");
    std::unique_lock hold(lock);
    ASSERT_TRUE(changed.wait_for(hold, std::chrono::seconds(5), [&] {
        return changes > 0 && !store.plims().empty();
    }));
    EXPECT_EQ(store.plims().at(0).id, "Fresh");
    hold.unlock();
    store.stopWatching();

    PlimStore nowhere(dir / "missing");
    EXPECT_FALSE(nowhere.startWatching({}));
}
