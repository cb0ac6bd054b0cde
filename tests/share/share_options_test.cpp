#include "base/trash.h"
#include "share/share_engine.h"
#include "share/share_options.h"
#include "share/share_progress.h"
#include "testkit/servers.h"

#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;

TEST(ShareOptions, ClockLabelsAndNotes)
{
    for (auto [seconds, text] : std::vector<std::pair<double, std::string>>{{0, "0:00"}, {59.99, "0:59"}, {61, "1:01"},
             {3599.9, "59:59"}, {3600, "1:00:00"}, {3725.5, "1:02:05"}, {-4, "0:00"}, {NAN, "0:00"}})
        EXPECT_EQ(ShareOptions::clock(seconds), text) << seconds;

    using Q = ShareQuality;
    using K = ShareKind;
    for (auto [quality, kind, text] : std::vector<std::tuple<Q, K, std::string>>{{Q::p720, K::gif, "Small"},
             {Q::p1080, K::gif, "Medium"}, {Q::p4K, K::gif, "Large"}, {Q::p720, K::video, "720p"},
             {Q::p1080, K::original, "1080p"}, {Q::p4K, K::video, "4K"}}) {
        EXPECT_EQ(label(quality, kind), text);
        EXPECT_EQ(parseShareQuality(text), quality) << text;
    }
    EXPECT_EQ(parseShareQuality("medium"), Q::p1080);
    EXPECT_EQ(parseShareQuality("8K"), std::nullopt);

    using N = std::optional<std::string>;
    for (auto [kind, quality, recorded, note] : std::vector<std::tuple<K, Q, std::optional<Size>, N>>{
             {K::video, Q::p1080, Size{1280, 720}, "This plim was recorded at 720p, so 1080p is enlarged from it, not sharper."},
             {K::video, Q::p4K, Size{1080, 1920}, "This plim was recorded at 1080p, so 4K is enlarged from it, not sharper."},
             {K::video, Q::p1080, Size{1920, 1079}, std::nullopt}, // within a pixel of the target
             {K::video, Q::p720, Size{2560, 1600}, std::nullopt},
             {K::gif, Q::p4K, Size{1280, 720}, std::nullopt},
             {K::video, Q::p1080, Size{1, 720}, std::nullopt},
             {K::video, Q::p1080, std::nullopt, std::nullopt}})
        EXPECT_EQ(ShareOptions::enlargementNote(kind, quality, recorded), note);
    EXPECT_EQ(ShareOptions::kindFormat(K::gif, {1152, 648}), "1152×648 · gif");
    EXPECT_EQ(ShareOptions::kindFormat(K::video, {1728, 1080}), "1728×1080 · mp4");
}

TEST(ShareOptions, CopiesGoToTheCacheFolder)
{
    XdgSandbox sandbox;
    EXPECT_EQ(ShareFiles::defaultCopiesFolder(), sandbox.home() / ".cache" / "Plim Copies");
}

TEST(ShareProgress, StageWording)
{
    EXPECT_EQ(ShareStage::editDetail(2, 1, 3, false), "2 cut and 1 pause and 3 sped-up");
    EXPECT_EQ(ShareStage::editDetail(0, 0, 1, false), "1 sped-up");
    EXPECT_EQ(ShareStage::editDetail(1, 0, 0, true), " clips in their new order");
    EXPECT_EQ(ShareStage::editDetail(0, 0, 0, false), "");

    using Z = std::optional<std::vector<int>>;
    for (auto [zooms, frame, title] : std::vector<std::tuple<Z, int, std::string>>{{std::nullopt, 5, "Drawing frames"},
             {std::vector<int>{}, 5, "Rendering the staged plim"}, {std::vector<int>{10, 50, 90}, 0, "Rendering zooms 1 of 3"},
             {std::vector<int>{10, 50, 90}, 50, "Rendering zooms 2 of 3"}, {std::vector<int>{10, 50, 90}, 400, "Rendering zooms 3 of 3"}})
        EXPECT_EQ(ShareStage::framesTitle(zooms, frame), title);
    EXPECT_EQ(ShareStage::framesDoneTitle(0), "Rendered");
    EXPECT_EQ(ShareStage::framesDoneTitle(1), "Rendered 1 zoom");
    EXPECT_EQ(ShareStage::framesDoneTitle(4), "Rendered 4 zooms");
    EXPECT_EQ(ShareStage::lineCount(1), "1 line");
    EXPECT_EQ(ShareStage::lineCount(7), "7 lines");

    ShareProgress video = ShareProgress::initial(false);
    ASSERT_EQ(video.stages.size(), 6u);
    std::vector<std::string> titles;
    for (const ShareStage& stage : video.stages) {
        titles.push_back(stage.title);
        EXPECT_EQ(stage.state, ShareStage::State::waiting);
    }
    EXPECT_EQ(titles, (std::vector<std::string>{"Reading the plim", "Applying the trim", "Drawing frames",
                          "Captions are off", "Writing the file", "Copying the original plim"}));
    EXPECT_TRUE(video.stage(ShareStage::ID::copyOriginal)->skips);
    EXPECT_FALSE(video.stage(ShareStage::ID::write)->skips);
    ShareProgress original = ShareProgress::initial(true);
    EXPECT_TRUE(original.stage(ShareStage::ID::frames)->skips);
    EXPECT_FALSE(original.stage(ShareStage::ID::copyOriginal)->skips);
}

TEST(Trash, MovesFilesWithTheirInfoAndNeverOverwrites)
{
    XdgSandbox sandbox;
    TempDir dir;
    writeText(dir / "my clip.mov", "first");
    auto first = moveToTrash(dir / "my clip.mov");
    ASSERT_TRUE(first) << first.error().sentence;
    EXPECT_EQ(*first, sandbox.home() / ".local/share/Trash/files/my clip.mov");
    EXPECT_FALSE(fs::exists(dir / "my clip.mov"));
    EXPECT_EQ(readText(*first), "first");
    const std::string info = readText(sandbox.home() / ".local/share/Trash/info/my clip.mov.trashinfo");
    EXPECT_EQ(info.rfind("[Trash Info]\nPath=", 0), 0u) << info;
    EXPECT_NE(info.find("Path=" + (dir.path() / "my").string() + "%20clip.mov\n"), std::string::npos) << info;
    EXPECT_NE(info.find("\nDeletionDate=20"), std::string::npos) << info;

    writeText(dir / "my clip.mov", "second");
    auto second = moveToTrash(dir / "my clip.mov");
    ASSERT_TRUE(second);
    EXPECT_EQ(second->filename(), "my clip 2.mov");
    EXPECT_EQ(readText(*second), "second");
    EXPECT_EQ(readText(*first), "first");

    auto missing = moveToTrash(dir / "never.mov");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().kind, Error::Kind::missing);
}

TEST(ShareEnvironment, TheDesktopClipboardOffersTheFileItsPathAndItsBytes)
{
    TempDir dir;
    writeText(dir / "my clip.mp4", "movie");
    auto environment = ShareEngine::Environment::desktop();
    {
        ScopedEnv noDisplay("DISPLAY", std::nullopt);
        auto refused = environment.copyToClipboard(dir / "my clip.mp4");
        ASSERT_FALSE(refused);
        EXPECT_EQ(refused.error().sentence, "there is no X display to hold the clipboard");
    }
    XvfbServer x("320x200x24");
    ASSERT_TRUE(x.isUp()) << "Xvfb did not start";
    ScopedEnv env("DISPLAY", x.display());
    ASSERT_TRUE(environment.copyToClipboard(dir / "my clip.mp4"));
    auto paste = [](const std::string& target) {
        return runCommand({"xclip", "-o", "-selection", "clipboard", "-t", target}).out;
    };
    const std::string uri = "file://" + (dir.path() / "my").string() + "%20clip.mp4";
    EXPECT_EQ(paste("text/uri-list"), uri + "\r\n");
    EXPECT_EQ(paste("x-special/gnome-copied-files"), "copy\n" + uri);
    EXPECT_EQ(paste("UTF8_STRING"), (dir / "my clip.mp4").string());
    EXPECT_EQ(paste("video/mp4"), "movie");
    const std::string targets = paste("TARGETS");
    for (const char* target : {"text/uri-list", "x-special/gnome-copied-files", "video/mp4"})
        EXPECT_NE(targets.find(target), std::string::npos) << targets;

    // A second offer takes the clipboard over; a GIF is offered as one.
    writeText(dir / "loop.gif", "GIF89a");
    ASSERT_TRUE(environment.copyToClipboard(dir / "loop.gif"));
    EXPECT_EQ(paste("image/gif"), "GIF89a");
    EXPECT_EQ(paste("video/mp4"), "");
    x.stop(); // the clipboard's owner goes with its display
}
