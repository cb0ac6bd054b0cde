// The rate, the time left, the digests the model download checks files with, and the ready check.

#include "base/json.h"
#include "base/settings.h"
#include "captions/caption_model_manifest.h"
#include "captions/caption_model_store.h"
#include "captions/caption_model_text.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

namespace plim {
namespace {

using CaptionModelText::remaining;

TEST(CaptionModelText, TimeLeftReadsInSecondsMinutesOrOverAnHour)
{
    const double twoMB = 2e6;
    EXPECT_EQ(remaining(120'000'000, twoMB), "about 1 min left");
    EXPECT_EQ(remaining(30'000'000, twoMB), "about 15 s left");
    EXPECT_EQ(remaining(800'000, twoMB), "about 1 s left"); // 0.4 s
    EXPECT_EQ(remaining(int64_t(2e6 * 59.4), twoMB), "about 59 s left");
    EXPECT_EQ(remaining(int64_t(2e6 * 150), twoMB), "about 3 min left"); // 2.5 min rounds up
    EXPECT_EQ(remaining(int64_t(2e6 * 3600), twoMB), "over an hour left");
    EXPECT_EQ(remaining(100, std::nullopt), std::nullopt);
    EXPECT_EQ(remaining(100, 1.0), std::nullopt);
    EXPECT_EQ(remaining(0, twoMB), std::nullopt);
}

TEST(CaptionModelText, RateSmoothsSamplesHalfASecondApart)
{
    RateMeter meter;
    EXPECT_EQ(meter.sample(0, 10.0), std::nullopt);       // the first sample only remembers
    EXPECT_EQ(meter.sample(5000, 10.3), std::nullopt);    // too close: nothing changes
    EXPECT_DOUBLE_EQ(*meter.sample(10'000, 11.0), 10'000); // first rate: 10 kB over 1 s
    EXPECT_DOUBLE_EQ(*meter.sample(30'000, 11.2), 10'000); // 0.2 s later: unchanged
    EXPECT_DOUBLE_EQ(*meter.sample(40'000, 12.0), 0.3 * 30'000 + 0.7 * 10'000);
    // Fewer bytes than before (the file started again) count as none.
    EXPECT_DOUBLE_EQ(*meter.sample(0, 13.0), 0.7 * (0.3 * 30'000 + 0.7 * 10'000));
}

TEST(CaptionModelText, DigestsAgreeWithGitAndSha256sum)
{
    testkit::TempDir dir;
    const auto path = dir / "vocab.json";
    std::string content = "{\"a\": 1}\n";
    for (int i = 0; i < 200'000; ++i)
        content += char('a' + i % 23);
    testkit::writeText(path, content);
    auto git = testkit::runCommand({"git", "hash-object", path.string()});
    auto sha = testkit::runCommand({"sha256sum", path.string()});
    ASSERT_EQ(git.status, 0);
    ASSERT_EQ(sha.status, 0);

    CaptionModelFile file;
    file.check = std::string(40, '0');
    EXPECT_EQ(captionModelDigest(path, file), git.out.substr(0, 40));
    file.check = std::string(64, '0');
    EXPECT_EQ(captionModelDigest(path, file), sha.out.substr(0, 64));
    EXPECT_EQ(captionModelDigest(dir / "absent", file).error().kind, Error::Kind::missing);
}

TEST(CaptionModelText, EveryPublishedCheckpointAddressCarriesItsDigest)
{
    for (const auto& size : captionModelSizes()) {
        ASSERT_EQ(size.files.size(), 3u);
        const auto& checkpoint = size.files[0];
        EXPECT_EQ(checkpoint.path, "model.pt");
        EXPECT_EQ(checkpoint.remotePath, "/main/whisper/models/" + checkpoint.check + "/" + size.name + ".pt");
        for (const auto& file : size.files) {
            EXPECT_TRUE(file.check.size() == 64 || file.check.size() == 40) << file.path;
            EXPECT_EQ(file.check.find_first_not_of("0123456789abcdef"), std::string::npos) << file.path;
        }
    }
    MemorySettingsStore settings;
    EXPECT_EQ(chosenCaptionModelSize(settings).name, "base");
    ASSERT_TRUE(settings.setValue(std::string(captionModelSizeKey), "small"));
    EXPECT_EQ(chosenCaptionModelSize(settings).name, "small");
    ASSERT_TRUE(settings.setValue(std::string(captionModelSizeKey), "huge"));
    EXPECT_EQ(chosenCaptionModelSize(settings).name, "base");
    EXPECT_FALSE(captionModelSize("huge"));
}

TEST(CaptionModelStore, TheRouterSeesAModelOnlyWhenMarkedAndWhole)
{
    testkit::XdgSandbox sandbox;
    MemorySettingsStore settings;
    const auto store = CaptionModelStore::standard();
    const auto base = *captionModelSize("base");
    EXPECT_EQ(store.root(), sandbox.home() / ".local/share/plim/CaptionModels");
    fs::create_directories(store.folder(base));
    for (const auto& file : base.files) {
        testkit::writeText(store.filePath(base, file), "");
        fs::resize_file(store.filePath(base, file), uintmax_t(file.size)); // sparse: no real bytes
    }
    EXPECT_EQ(readyCaptionModelFolder(settings), std::nullopt); // not marked
    ASSERT_TRUE(store.writeMarker(base));
    EXPECT_EQ(readyCaptionModelFolder(settings), store.folder(base));
    fs::resize_file(store.filePath(base, base.files[2]), uintmax_t(base.files[2].size - 1));
    EXPECT_EQ(readyCaptionModelFolder(settings), std::nullopt); // a file cut short
    ASSERT_TRUE(settings.setValue(std::string(captionModelSizeKey), "small"));
    EXPECT_EQ(readyCaptionModelFolder(settings), std::nullopt);
}

} // namespace
} // namespace plim
