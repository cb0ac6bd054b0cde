// plimctl captions-model as people use it: its status, a download stopped by Ctrl-C, then
// deleted. The files come from a test server standing in for the model's host
// (PLIM_MODEL_BASE_URL).

#include "captions/caption_model_manifest.h"
#include "testkit/http_range_server.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

namespace plim {
namespace {

namespace fs = std::filesystem;

TEST(CaptionModelCommand, StatusAPauseOnCtrlCAndDelete)
{
    testkit::HttpRangeServer server;
    ASSERT_TRUE(server.isUp());
    testkit::TempDir home;
    const std::vector<std::string> env = {"HOME=" + home.path().string(),
        "XDG_DATA_HOME=" + (home / "data").string(), "XDG_CONFIG_HOME=" + (home / "config").string(),
        "PLIM_MODEL_BASE_URL=" + server.baseUrl() + "/"};
    const auto base = *captionModelSize("base");
    std::string content(3'000'000, '\0');
    for (size_t i = 0; i < content.size(); ++i)
        content[i] = char(i * 7919 % 251);
    server.serve(base.files[0].remotePath, content, {.bytesPerSecond = 400'000});
    const auto partial = home / "data/plim/CaptionModels/base/model.pt";
    const std::string plimctl = testkit::builtExecutable("plimctl").string();
    auto ctl = [&](const std::string& verb) {
        return testkit::runCommand({plimctl, "captions-model", verb}, env);
    };
    auto partialSize = [&] {
        std::error_code ec;
        auto bytes = fs::file_size(partial, ec);
        return ec ? int64_t(0) : int64_t(bytes);
    };

    auto status = ctl("status");
    EXPECT_EQ(status.status, 0);
    EXPECT_NE(status.out.find("Whisper base (used for captions): not downloaded (147 MB)"), std::string::npos) << status.out;
    auto idle = ctl("pause");
    EXPECT_EQ(idle.status, 1);
    EXPECT_EQ(idle.err, "No download of the Whisper base model is running, so there is nothing to pause.\n");

    // Stopped by Ctrl-C once the progress shows a rate (a fast build gets 400 KB before its
    // first sample); a pause from another terminal and the resume at the byte where it stopped
    // are the download's own (CaptionModelDownload).
    {
        testkit::ChildProcess download({plimctl, "captions-model", "download"}, env, home / "out", home / "err");
        ASSERT_TRUE(testkit::eventually([&] {
            std::error_code ec;
            return partialSize() >= 400'000 && fs::exists(home / "err", ec)
                && testkit::readText(home / "err").find(" KB/s, about ") != std::string::npos;
        }));
        ::kill(download.pid(), SIGINT);
        EXPECT_EQ(download.wait(), 1);
    }
    const std::string said = testkit::readText(home / "err");
    EXPECT_NE(said.find("Resume picks up where it stopped. Captions use the built-in recognizer until it is done."),
        std::string::npos) << said;
    EXPECT_GT(partialSize(), 0);
    EXPECT_NE(ctl("status").out.find("Whisper base (used for captions): paused at "), std::string::npos);

    auto deleted = ctl("delete");
    EXPECT_EQ(deleted.status, 0) << deleted.err;
    EXPECT_FALSE(fs::exists(partial.parent_path()));
    EXPECT_EQ(ctl("delete").out, "Whisper base is not downloaded, so there was nothing to delete.\n");
}

} // namespace
} // namespace plim
