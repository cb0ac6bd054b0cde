// plimctl share, list and thumbs as real processes in a sandboxed home.
#include "base/json.h"
#include "share/share.h"
#include "testkit/test_movies.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <thread>

using namespace plim::testkit;

namespace {

struct ShareCliTest : ::testing::Test {
    XdgSandbox sandbox;
    TempDir library, out;
    std::vector<std::string> env = {"HOME=" + sandbox.home().string(), "XDG_CACHE_HOME=" + (sandbox.home() / ".cache").string(),
        "XDG_DATA_HOME=" + (sandbox.home() / ".local/share").string(), "XDG_CONFIG_HOME=" + (sandbox.home() / ".config").string()};

    fs::path movie(const std::string& name, double seconds = 1.0)
    {
        EXPECT_TRUE(writeTestMovie(library / name, TestMovie{.duration = seconds}));
        return library / name;
    }
    CommandResult ctl(std::vector<std::string> args) { return runBuilt("plimctl", std::move(args), env); }
};

} // namespace

TEST_F(ShareCliTest, SharesPrintProgressTheNoteAndTheFile)
{
    const fs::path clip = movie("Clip.mov");
    auto gif = ctl({"share", clip.string(), "--kind", "gif", "--quality", "Small", "--to", out.path().string(), "--backdrop", "#204080"});
    ASSERT_EQ(gif.status, 0) << gif.err;
    const fs::path made = out / "Clip.gif";
    ASSERT_TRUE(fs::exists(made));
    EXPECT_NE(gif.out.find("write: done · Writing the file · 12 frames\n"), std::string::npos) << gif.out;
    EXPECT_NE(gif.out.find("\nSaved Clip.gif, "), std::string::npos) << gif.out;
    EXPECT_NE(gif.out.find(made.string() + " ("), std::string::npos) << gif.out;
    EXPECT_EQ(ffprobe(made).width, 690); // 0.6 × 720 = 432 lines; 432 × 1.6 = 691.2, rounded down to even

    for (auto [args, sentence] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"share", clip.string(), "--kind", "webm"}, "plimctl share: \"webm\" is not a kind of share. Use video, gif or original; nothing was saved."},
             {{"share", clip.string(), "--quality", "8K"}, "plimctl share: \"8K\" is not a quality. Use 720p, 1080p or 4K (for a GIF Small, Medium or Large); nothing was saved."},
             {{"share", clip.string(), "--backdrop", "plaid"}, "plimctl share: \"plaid\" is not a choice for --backdrop. Use a backdrop name, #RRGGBB, #RRGGBB,#RRGGBB or image:PATH; nothing was rendered."},
             {{"share", clip.string(), "--copy", "--to", out.path().string()}, "plimctl share: choose --to FOLDER or --copy, not both; nothing was saved."}}) {
        auto refused = ctl(args);
        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.err, sentence + "\n");
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(out.path()), fs::directory_iterator()), 1);
}

// Ctrl-C stops a share and a termination a stage, each with nothing saved and no partial
// file left.
TEST_F(ShareCliTest, InterruptedSharesAndStagesLeaveNothing)
{
    const fs::path clip = movie("Long.mov", 6.0);
    ASSERT_TRUE(testTrack(TestMovie{.duration = 6.0}).write(clip));
    ChildProcess share({builtExecutable("plimctl").string(), "share", clip.string(), "--quality", "4K", "--to",
                           out.path().string()},
        env, out / ".stdout", out / ".stderr");
    eventually([&] { return readText(out / ".stdout").find("write: now") != std::string::npos; }, 12);
    ::kill(share.pid(), SIGINT);
    EXPECT_EQ(share.wait(), 1);
    const std::string err = readText(out / ".stderr");
    EXPECT_TRUE(err.ends_with("\nStopped. Nothing was saved.\n") || err == "Stopped. Nothing was saved.\n") << err;

    ChildProcess stage({builtExecutable("plimctl").string(), "stage", clip.string(), "--size", "2160", "--output",
                           (out / "Staged.mp4").string()},
        env, out / ".stdout", out / ".stderr");
    ASSERT_TRUE(eventually([&] {
        return std::ranges::any_of(fs::directory_iterator(out.path()),
            [](const auto& entry) { return entry.path().filename().string().starts_with("Staged.partial"); });
    }, 30)) << readText(out / ".stderr");
    ::kill(stage.pid(), SIGTERM);
    EXPECT_EQ(stage.wait(), 1);
    EXPECT_TRUE(readText(out / ".stderr").ends_with("\nStopped. Nothing was saved.\n")) << readText(out / ".stderr");
    for (const auto& entry : fs::directory_iterator(out.path()))
        EXPECT_TRUE(entry.path().filename().string().starts_with(".")) << entry.path();
}

TEST_F(ShareCliTest, ListsTheLibraryAndDrawsThumbnails)
{
    movie("Caf\xe9\x1b[2J.mov"); // Latin-1 with a terminal escape: printed escaped in both forms
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    movie("First.mov");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const fs::path second = movie("Second.mov", 2.0);
    auto listed = ctl({"list", "--folder", library.path().string(), "--json"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    auto json = nlohmann::json::parse(listed.out);
    ASSERT_EQ(json.size(), 3u);
    EXPECT_EQ(json[0]["name"], "Second");
    EXPECT_NEAR(json[0]["length"].get<double>(), 2.0, 0.1);
    EXPECT_EQ(json[1]["name"], "First");
    EXPECT_EQ(json[2]["name"], "Caf\\xe9\\x1b[2J");
    auto plain = ctl({"list", "--folder", library.path().string()});
    EXPECT_TRUE(plain.out.starts_with("Second  ")) << plain.out;
    EXPECT_NE(plain.out.find("\nCaf\\xe9\\x1b[2J  "), std::string::npos) << plain.out;
    // The lengths come from the listing cache now; a movie that changed is opened again,
    // and a damaged cache is only a cache.
    EXPECT_TRUE(fs::exists(sandbox.home() / ".cache/plim/listing.txt"));
    movie("Second.mov", 3.0);
    writeText(sandbox.home() / ".cache/plim/listing.txt", "plim listing cache 1\n12\tx\n\t\t\n");
    for (int i = 0; i < 2; ++i) {
        auto again = ctl({"list", "--folder", library.path().string(), "--json"});
        ASSERT_EQ(again.status, 0) << again.err;
        auto relisted = nlohmann::json::parse(again.out);
        ASSERT_EQ(relisted.size(), 3u);
        EXPECT_NEAR(relisted[0]["length"].get<double>(), 3.0, 0.1);
        EXPECT_EQ(relisted[1], json[1]);
    }

    auto thumbs = ctl({"thumbs", second.string()});
    ASSERT_EQ(thumbs.status, 0) << thumbs.err;
    EXPECT_EQ(thumbs.out, (library / "Second.thumbs.heic").string() + "\n");
    EXPECT_TRUE(plim::PlimThumbs::read(second));
    auto broken = ctl({"thumbs", (library / "nothing.mov").string()});
    EXPECT_EQ(broken.status, 1);
    EXPECT_EQ(broken.err, "plimctl thumbs: Thumbnails for nothing.mov could not be drawn: a frame could not be rendered. The plim itself is untouched.\n");
    EXPECT_FALSE(fs::exists(library / "nothing.thumbs.heic"));
}
