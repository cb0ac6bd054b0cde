// The settings pane's better captions: the switch starts the model's download, Pause
// keeps what came down, Resume goes on from there, Delete removes it.

#include "base/json.h"
#include "base/settings.h"
#include "captions/caption_model_made_up.h"
#include "ui/better_captions_panel.h"
#include "wait_until.h"

#include <QCheckBox>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>

#include <gtest/gtest.h>

namespace plim {
namespace {


TEST(BetterCaptionsPanel, DownloadsOffTheGuiThreadPausesResumesAndDeletes)
{
    testkit::HttpRangeServer server;
    ASSERT_TRUE(server.isUp());
    MadeUpCaptionModel model(server);
    const auto& checkpoint = model.size.files[0];
    server.setBehaviour(checkpoint.remotePath, {.bytesPerSecond = 150'000});
    testkit::TempDir root;
    MemorySettingsStore settings;
    BetterCaptionsPanel::Setup setup{CaptionModelStore(root.path()), {}, {}, {model.size}};
    setup.hosts.checkpoint = setup.hosts.tokenizer = server.baseUrl();
    const CaptionModelStore store = setup.store;
    BetterCaptionsPanel panel(settings, std::move(setup));
    panel.show();
    auto* text = testkit::child<QLabel>(panel, "betterCaptionsText");
    auto* status = testkit::child<QLabel>(panel, "captionModelStatus");
    EXPECT_EQ(text->text().toStdString(), CaptionModelText::beforeDownload);

    // Turning better captions on fetches the model; the window keeps answering meanwhile.
    testkit::child<QCheckBox>(panel, "betterCaptions")->setChecked(true);
    EXPECT_TRUE(settings.boolean(std::string(betterCaptionsKey), false));
    ASSERT_TRUE(panel.isDownloading());
    EXPECT_EQ(text->text().toStdString(), CaptionModelText::duringDownload);
    ASSERT_TRUE(testkit::waitUntil([&] { return status->text().contains(QStringLiteral("KB/s, about")); }))
        << status->text().toStdString();
    EXPECT_GT(testkit::child<QProgressBar>(panel, "captionModelProgress")->value(), 0);
    testkit::keepShot(panel, "better-captions");
    QTest::mouseClick(testkit::child<QPushButton>(panel, "pauseCaptionModel"), Qt::LeftButton);
    ASSERT_TRUE(testkit::waitUntil([&] { return !panel.isDownloading(); }));
    EXPECT_TRUE(status->text().contains(QStringLiteral("Resume picks up where it stopped.")));
    auto* download = testkit::child<QPushButton>(panel, "downloadCaptionModel");
    EXPECT_EQ(download->text(), QStringLiteral("Resume"));
    const auto kept = int64_t(fs::file_size(store.filePath(model.size, checkpoint)));
    ASSERT_GT(kept, 0);

    server.setBehaviour(checkpoint.remotePath, {});
    QTest::mouseClick(download, Qt::LeftButton);
    ASSERT_TRUE(testkit::waitUntil([&] { return !panel.isDownloading(); }));
    EXPECT_EQ(text->text().toStdString(), CaptionModelText::downloaded) << status->text().toStdString();
    EXPECT_TRUE(store.isReady(model.size));
    EXPECT_EQ(server.requests()[server.requests().size() - 3].range, "bytes=" + std::to_string(kept) + "-");

    QTest::mouseClick(testkit::child<QPushButton>(panel, "deleteCaptionModel"), Qt::LeftButton);
    EXPECT_EQ(text->text().toStdString(), CaptionModelText::beforeDownload);
    EXPECT_FALSE(fs::exists(store.folder(model.size)));
}

} // namespace
} // namespace plim
