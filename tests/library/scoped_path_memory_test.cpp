#include "library/scoped_path_memory.h"

#include "base/log.h"
#include "base/places.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;

namespace {

using Kind = ScopedPathMemory::Kind;
using Found = ScopedPathMemory::Recall::Outcome;

const std::string noFolder = "there is no folder there any more (it was moved, renamed, replaced by a file, or it lives on a "
                             "volume that is not mounted).";
const std::string noFile = "there is no file there any more (it was moved, renamed, or it lives on a volume that is not mounted).";
const std::string tail = " Nothing was written. Choose it again and Plim will keep the new choice.";

} // namespace

TEST(ScopedPathMemory, RemembersAFolderAcrossARelaunch)
{
    XdgSandbox sandbox;
    fs::path exports = sandbox.home() / "Exports";
    fs::create_directory(exports);
    {
        FileSettingsStore settings(Places::settingsFile());
        ScopedPathMemory memory(settings);
        EXPECT_EQ(memory.remember(exports, "share.folder"), std::nullopt);
    }
    // A new store over the same file stands for the next launch.
    FileSettingsStore settings(Places::settingsFile());
    ScopedPathMemory memory(settings);
    auto recall = memory.recall("share.folder", Kind::folder);
    EXPECT_EQ(recall, ScopedPathMemory::Recall::at(exports, Kind::folder));
    EXPECT_EQ(recall.sentence(), std::nullopt);
    EXPECT_EQ(memory.recall("never.set", Kind::folder), ScopedPathMemory::Recall::nothing());
    EXPECT_EQ(memory.recall("never.set", Kind::folder).sentence(), std::nullopt);

    EXPECT_EQ(memory.forget("share.folder"), std::nullopt);
    EXPECT_EQ(memory.recall("share.folder", Kind::folder).outcome, Found::nothing);
}

TEST(ScopedPathMemory, AMovedFolderIsLostWithItsSentence)
{
    TempDir dir;
    MemorySettingsStore settings;
    ScopedPathMemory memory(settings);
    fs::path exports = dir / "Exports";
    fs::create_directory(exports);
    memory.remember(exports, "share.folder");
    fs::rename(exports, dir / "Moved");

    auto recall = memory.recall("share.folder", Kind::folder);
    EXPECT_EQ(recall.outcome, Found::lost);
    EXPECT_EQ(recall.path, exports);
    EXPECT_EQ(recall.sentence(), "Plim remembered \"Exports\", and cannot use it now: " + noFolder + tail);
    // Recalling changes nothing that was stored.
    EXPECT_EQ(settings.value("share.folder"), Json(exports.string()));

    // A file where the folder was is not the folder.
    writeText(exports, "file");
    EXPECT_EQ(memory.recall("share.folder", Kind::folder).outcome, Found::lost);
}

TEST(ScopedPathMemory, AFileMustStillBeAFile)
{
    TempDir dir;
    MemorySettingsStore settings;
    ScopedPathMemory memory(settings);
    fs::path wallpaper = dir / "wall.png";
    writeText(wallpaper, "png");
    memory.remember(wallpaper, "look.wallpaper");
    EXPECT_EQ(memory.recall("look.wallpaper", Kind::file), ScopedPathMemory::Recall::at(wallpaper, Kind::file));

    fs::remove(wallpaper);
    fs::create_directory(wallpaper);
    auto recall = memory.recall("look.wallpaper", Kind::file);
    EXPECT_EQ(recall.outcome, Found::lost);
    EXPECT_EQ(recall.sentence(), "Plim remembered \"wall.png\", and cannot use it now: " + noFile + tail);
}

TEST(ScopedPathMemory, AValueThatIsNotAPathWasNeverUsable)
{
    MemorySettingsStore settings;
    ScopedPathMemory memory(settings);
    settings.setValue("share.folder", Json::array({1, 2}));
    settings.setValue("relative", "Exports");
    for (const char* key : {"share.folder", "relative"}) {
        auto recall = memory.recall(key, Kind::folder);
        EXPECT_EQ(recall.outcome, Found::lost) << key;
        EXPECT_EQ(recall.sentence(), "Plim remembered the folder you picked, and cannot use it now: this copy of Plim was "
                                     "never given access to it (the choice was made in a version that could not keep it)."
                + tail) << key;
    }
    EXPECT_EQ(ScopedPathMemory::displayName("/", Kind::folder), "the folder you picked");
    EXPECT_EQ(ScopedPathMemory::displayName("/media/disk/Clips/", Kind::folder), "\"Clips\"");
}

TEST(ScopedPathMemory, AStoreThatRefusesLeavesItsFileAsItIs)
{
    XdgSandbox sandbox;
    fs::create_directories(Places::settingsFile().parent_path());
    const std::string broken = "{ \"share.folder\": ";
    writeText(Places::settingsFile(), broken);
    FileSettingsStore settings(Places::settingsFile());
    ScopedPathMemory memory(settings);
    fs::path exports = sandbox.home() / "Exports";
    fs::create_directory(exports);
    LogCapture log;

    auto sentence = memory.remember(exports, "share.folder");

    ASSERT_TRUE(sentence.has_value());
    EXPECT_EQ(sentence->rfind("Plim: could not remember \"Exports\" beyond this launch (Plim could not read its settings file ", 0), 0u);
    EXPECT_NE(sentence->find("). It will work until Plim quits, and then Plim will ask for it again."), std::string::npos);
    EXPECT_EQ(log.lines(), std::vector<std::string>{*sentence});
    EXPECT_EQ(readText(Places::settingsFile()), broken);
    EXPECT_EQ(memory.recall("share.folder", Kind::folder).outcome, Found::nothing);
}
