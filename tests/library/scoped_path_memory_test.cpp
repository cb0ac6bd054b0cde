#include "library/scoped_path_memory.h"

#include "base/json.h"
#include "base/log.h"
#include "base/places.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;
using Kind = ScopedPathMemory::Kind;
using Recall = ScopedPathMemory::Recall;

namespace {
const std::string tail = " Nothing was written. Choose it again and Plim will keep the new choice.";
}

TEST(ScopedPathMemory, RemembersAcrossARelaunchButNotThroughAStoreThatRefuses)
{
    XdgSandbox sandbox;
    fs::path exports = sandbox.home() / "Exports";
    fs::create_directory(exports);
    {
        FileSettingsStore settings(Places::settingsFile());
        EXPECT_TRUE(ScopedPathMemory(settings).remember(exports, "share.folder"));
    }
    // A new store over the same file stands for the next launch.
    FileSettingsStore settings(Places::settingsFile());
    ScopedPathMemory memory(settings);
    EXPECT_EQ(memory.recall("share.folder", Kind::folder), Recall::at(exports, Kind::folder));
    EXPECT_EQ(memory.recall("share.folder", Kind::folder).sentence(), std::nullopt);
    EXPECT_EQ(memory.recall("never.set", Kind::folder), Recall::nothing());
    EXPECT_TRUE(memory.forget("share.folder"));
    EXPECT_EQ(memory.recall("share.folder", Kind::folder), Recall::nothing());

    const std::string broken = "{ \"share.folder\": ";
    writeText(Places::settingsFile(), broken);
    FileSettingsStore brokenSettings(Places::settingsFile());
    ScopedPathMemory refused(brokenSettings);
    LogCapture log;
    auto stored = refused.remember(exports, "share.folder");
    ASSERT_FALSE(stored);
    const std::string sentence = stored.error().sentence;
    EXPECT_EQ(sentence.rfind("Plim: could not remember \"Exports\" beyond this launch (Plim could not read its settings "
                             "file ", 0), 0u);
    EXPECT_NE(sentence.find("). It will work until Plim quits, and then Plim will ask for it again."), std::string::npos);
    EXPECT_EQ(log.lines(), std::vector<std::string>{sentence});
    EXPECT_EQ(readText(Places::settingsFile()), broken);
    EXPECT_EQ(refused.recall("share.folder", Kind::folder), Recall::nothing());
}

TEST(ScopedPathMemory, APlaceThatIsGoneOrNeverWasAPathIsLostWithItsSentence)
{
    TempDir dir;
    MemorySettingsStore settings;
    ScopedPathMemory memory(settings);
    fs::create_directory(dir / "Exports");
    writeText(dir / "wall.png", "png");
    memory.remember(dir / "Exports", "share.folder");
    memory.remember(dir / "wall.png", "look.wallpaper");
    EXPECT_EQ(memory.recall("look.wallpaper", Kind::file), Recall::at(dir / "wall.png", Kind::file));

    fs::rename(dir / "Exports", dir / "Moved");
    fs::remove(dir / "wall.png");
    fs::create_directory(dir / "wall.png");
    const std::string noFolder = "Plim remembered \"Exports\", and cannot use it now: there is no folder there any more "
                                 "(it was moved, renamed, replaced by a file, or it lives on a volume that is not mounted)." + tail;
    auto lost = memory.recall("share.folder", Kind::folder);
    EXPECT_EQ(std::pair(lost.outcome, lost.path), std::pair(Recall::Outcome::lost, dir / "Exports"));
    EXPECT_EQ(lost.sentence(), noFolder);
    EXPECT_EQ(memory.recall("look.wallpaper", Kind::file).sentence(), "Plim remembered \"wall.png\", and cannot use it "
        "now: there is no file there any more (it was moved, renamed, or it lives on a volume that is not mounted)." + tail);
    EXPECT_EQ(settings.value("share.folder"), Json((dir / "Exports").string())); // recalling changes nothing stored
    writeText(dir / "Exports", "a file where the folder was");
    EXPECT_EQ(memory.recall("share.folder", Kind::folder).sentence(), noFolder);

    settings.setValue("share.folder", Json::array({1, 2}));
    settings.setValue("relative", "Exports");
    for (const char* key : {"share.folder", "relative"})
        EXPECT_EQ(memory.recall(key, Kind::folder).sentence(), "Plim remembered the folder you picked, and cannot use "
            "it now: this copy of Plim was never given access to it (the choice was made in a version that could not "
            "keep it)." + tail) << key;
    EXPECT_EQ(ScopedPathMemory::displayName("/media/disk/Clips/", Kind::folder), "\"Clips\"");
}
