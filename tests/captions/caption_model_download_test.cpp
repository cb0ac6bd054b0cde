// The model download against a real HTTP server on 127.0.0.1 that serves made-up model
// files and misbehaves on request.

#include "base/log.h"
#include "captions/caption_model_downloader.h"
#include "captions/caption_model_made_up.h"
#include "testkit/http_range_server.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

namespace plim {
namespace {

// A sink that takes `room` bytes in all and then fails as a full disk does.
class FullDiskSink final : public CaptionModelSink {
public:
    FullDiskSink(std::unique_ptr<CaptionModelSink> inner, int64_t& room) : m_inner(std::move(inner)), m_room(room) {}
    int64_t length() const override { return m_inner->length(); }
    Status restart() override { return m_inner->restart(); }
    Status append(std::string_view bytes) override
    {
        if (int64_t(bytes.size()) > m_room)
            return fail("No space left on device", Error::Kind::noSpace);
        m_room -= int64_t(bytes.size());
        return m_inner->append(bytes);
    }

private:
    std::unique_ptr<CaptionModelSink> m_inner;
    int64_t& m_room;
};

class CaptionModelDownload : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.isUp());
        MadeUpCaptionModel model(server);
        size = model.size;
        contents = model.contents;
        hosts.checkpoint = hosts.tokenizer = server.baseUrl();
        services.transport = makeCurlCaptionTransport({5, 1000, 1});
        services.sleep = [this](double seconds, StopToken) { pauses.push_back(seconds); };
        services.prepare = [this](const fs::path& folder) -> Status {
            ++prepared;
            EXPECT_EQ(testkit::readText(folder / "model.pt"), contents[0]);
            return {};
        };
    }

    Outcome<fs::path> download(const std::function<void(const CaptionModelProgress&)>& onProgress = {}, StopToken stop = {})
    {
        CaptionModelDownloader downloader(store, size, hosts, services);
        return downloader.run(stop, onProgress);
    }

    // The sentence of a download that is expected to fail.
    std::string failure()
    {
        auto outcome = download();
        EXPECT_TRUE(outcome.isFailed()) << outcome.sentence;
        return outcome.isFailed() ? outcome.sentence : std::string();
    }

    std::string onDisk(size_t i) const { return testkit::readText(store.filePath(size, size.files[i])); }
    bool present(size_t i) const { return fs::exists(store.filePath(size, size.files[i])); }

    std::vector<std::string> rangesFor(const std::string& path) const
    {
        std::vector<std::string> ranges;
        for (const auto& request : server.requests())
            if (request.path == path)
                ranges.push_back(request.range.value_or("none"));
        return ranges;
    }

    testkit::HttpRangeServer server;
    testkit::TempDir root;
    CaptionModelStore store{root.path() / "CaptionModels"};
    CaptionModelSize size;
    CaptionModelHosts hosts;
    CaptionModelServices services;
    std::vector<std::string> contents;
    std::vector<double> pauses;
    int prepared = 0;
    LogCapture log;
};

TEST_F(CaptionModelDownload, FetchesVerifiesPreparesOnceAndDeletes)
{
    std::vector<std::string> lines;
    auto outcome = download([&](const CaptionModelProgress& p) { lines.push_back(captionModelStatusLine(size, p)); });
    ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;
    EXPECT_EQ(outcome.value, store.folder(size));
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(lines[lines.size() - 2].ends_with(", checking the file")) << lines[lines.size() - 2];
    EXPECT_EQ(lines.back(), CaptionModelText::preparing);
    for (size_t i = 0; i < contents.size(); ++i)
        EXPECT_EQ(onDisk(i), contents[i]);
    EXPECT_TRUE(store.isReady(size));
    EXPECT_EQ(store.bytesOnDisk(size), size.totalBytes());
    EXPECT_EQ(prepared, 1);
    EXPECT_TRUE(log.contains("Plim captions: model ready at " + store.folder(size).string()));

    // A ready model is not fetched or prepared again.
    const size_t asked = server.requests().size();
    ASSERT_TRUE(download().isFinished());
    EXPECT_EQ(server.requests().size(), asked);
    EXPECT_EQ(prepared, 1);

    ASSERT_TRUE(store.remove(size));
    EXPECT_FALSE(fs::exists(store.folder(size)));
    EXPECT_TRUE(log.contains("Plim captions: model deleted (" + store.folder(size).string() + ")"));
}

TEST_F(CaptionModelDownload, PausedFromElsewhereResumesAtTheExactByte)
{
    server.setBehaviour("/models/model.pt", {.bytesPerSecond = 150'000});
    std::vector<std::string> lines;
    bool refusedDelete = false;
    auto outcome = download([&](const CaptionModelProgress& p) {
        lines.push_back(captionModelStatusLine(size, p));
        if (p.done >= 200'000 && !fs::exists(store.pauseRequestPath(size))) {
            refusedDelete = !store.remove(size);
            EXPECT_TRUE(store.requestPause(size)); // as `plimctl captions-model pause` does
        }
    });
    ASSERT_TRUE(outcome.isStopped()) << outcome.sentence;
    EXPECT_TRUE(refusedDelete);
    EXPECT_NE(outcome.sentence.find("Resume picks up where it stopped. Captions use the built-in recognizer"), std::string::npos);
    EXPECT_TRUE(log.contains("Plim captions: model download paused by the person (at "));
    EXPECT_FALSE(store.isDownloading(size));
    EXPECT_FALSE(store.requestPause(size)); // nothing runs now
    const int64_t kept = int64_t(onDisk(0).size());
    ASSERT_GT(kept, 0);
    ASSERT_LT(kept, int64_t(contents[0].size()));
    EXPECT_EQ(onDisk(0), contents[0].substr(0, size_t(kept)));
    // While it ran, the line showed the rate and the time left.
    bool shown = false;
    for (const auto& line : lines)
        shown = shown || (line.find(" KB/s, about ") != std::string::npos && line.find(" s left") != std::string::npos);
    EXPECT_TRUE(shown) << (lines.empty() ? "" : lines.back());

    server.setBehaviour("/models/model.pt", {});
    ASSERT_TRUE(download().isFinished());
    EXPECT_EQ(rangesFor("/models/model.pt").back(), "bytes=" + std::to_string(kept) + "-");
    EXPECT_EQ(onDisk(0), contents[0]);
}

TEST_F(CaptionModelDownload, SurvivesAWholeFileForARangeADropAndAStall)
{
    // An old partial copy the server will not resume: its 200 starts the file again.
    fs::create_directories(store.folder(size));
    testkit::writeText(store.filePath(size, size.files[0]), "stale bytes");
    server.setBehaviour("/models/model.pt", {.ignoreRange = true});
    server.setBehaviour("/tokenizer/vocab.json", {.dropAfter = 25'000, .drops = 1});
    server.setBehaviour("/tokenizer/merges.txt", {.stallAfter = 2'000, .stalls = 1});
    std::vector<std::string> notes;
    std::optional<std::string> previous;
    auto outcome = download([&](const CaptionModelProgress& p) {
        if (p.retryNote && p.retryNote != previous)
            notes.push_back(*p.retryNote);
        previous = p.retryNote;
    });
    ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;
    for (size_t i = 0; i < contents.size(); ++i)
        EXPECT_EQ(onDisk(i), contents[i]) << size.files[i].path;
    EXPECT_EQ(rangesFor("/models/model.pt"), std::vector<std::string>{"bytes=11-"});
    EXPECT_EQ(rangesFor("/tokenizer/vocab.json"), (std::vector<std::string>{"none", "bytes=25000-"}));
    EXPECT_EQ(rangesFor("/tokenizer/merges.txt"), (std::vector<std::string>{"none", "bytes=2000-"}));
    EXPECT_EQ(pauses, (std::vector<double>{2, 2}));
    EXPECT_EQ(notes, std::vector<std::string>(2, "Connection dropped, trying again in 2 s"));
    EXPECT_TRUE(log.contains("Plim captions: model download interrupted, retrying ("));
}

TEST_F(CaptionModelDownload, DamagedFileIsFetchedOnceMoreThenTheDownloadStops)
{
    server.setBehaviour("/tokenizer/vocab.json", {.corruptions = 1});
    ASSERT_TRUE(download().isFinished());
    EXPECT_EQ(onDisk(1), contents[1]);
    EXPECT_TRUE(log.contains("Plim captions: model file failed its checksum, fetching it again (vocab.json)"));

    ASSERT_TRUE(store.remove(size));
    server.setBehaviour("/tokenizer/vocab.json", {.corruptions = 2});
    EXPECT_EQ(failure(), "Part of the download arrived damaged twice, so Plim threw it away rather than use it. Download again to start clean.");
    EXPECT_TRUE(log.contains("Plim captions: model file failed its checksum twice (vocab.json)"));
    EXPECT_FALSE(present(1));
    EXPECT_EQ(onDisk(0), contents[0]); // verified before: kept
    EXPECT_FALSE(store.isReady(size));
}

TEST_F(CaptionModelDownload, RefusalsFullDisksAndLostConnectionsStopWithTheirSentences)
{
    for (int status : {404, 503}) {
        server.setBehaviour("/tokenizer/merges.txt", {.status = status});
        EXPECT_EQ(failure(), "The model's server did not send the file (error " + std::to_string(status)
                + "). What already came down is kept. Try again in a few minutes.");
        EXPECT_TRUE(log.contains("Plim captions: model download refused (HTTP " + std::to_string(status)));
        EXPECT_EQ(onDisk(0), contents[0]);
        EXPECT_FALSE(store.isReady(size));
    }
    ASSERT_TRUE(store.remove(size));

    int64_t room = 100'000;
    services.openFile = [&room](const fs::path& path) -> Result<std::unique_ptr<CaptionModelSink>> {
        auto inner = PLIM_TRY(openCaptionModelFile(path));
        return std::make_unique<FullDiskSink>(std::move(inner), room);
    };
    const std::string full = failure();
    EXPECT_TRUE(full.starts_with("Plim could not save the download (No space left on device"));
    EXPECT_TRUE(full.ends_with("). Check the disk has space and is not locked, then try again."));
    EXPECT_TRUE(log.contains("Plim captions: model file could not be written (No space left on device"));
    EXPECT_LE(onDisk(0).size(), 100'000u);
    services.openFile = openCaptionModelFile;

    // Not enough room for what is left: nothing is asked of the server.
    const size_t asked = server.requests().size();
    services.freeBytes = [] { return std::optional<int64_t>(1000); };
    const std::string blocked = failure();
    const int64_t left = size.totalBytes() - int64_t(onDisk(0).size());
    EXPECT_EQ(blocked, "Not enough free space. Better captions need " + CaptionModelText::size(left)
            + " free and this computer has 1.0 KB. Free up some space, then try again.");
    EXPECT_TRUE(log.contains("Plim captions: model download blocked (needs " + std::to_string(left) + " bytes free, volume has 1000)"));
    EXPECT_EQ(server.requests().size(), asked);
    services.freeBytes = {};

    // Nobody answers: every retry pause is taken, then it stops keeping what came down.
    {
        testkit::HttpRangeServer gone;
        hosts.checkpoint = hosts.tokenizer = gone.baseUrl(); // closed when it goes
    }
    EXPECT_EQ(failure(), "The download stopped because this computer lost its internet connection. What already came down is kept, so it picks up where it stopped. Check the connection, then try again.");
    EXPECT_EQ(pauses, services.retryPauses);
    EXPECT_TRUE(log.contains("Plim captions: model download stopped ("));
    EXPECT_FALSE(onDisk(0).empty());
}

TEST_F(CaptionModelDownload, AModelThatWillNotLoadIsNotMarkedReady)
{
    services.prepare = [](const fs::path&) -> Status { return fail("the checkpoint holds no encoder"); };
    EXPECT_EQ(failure(), "The model downloaded but would not load on this computer. Captions keep using the built-in recognizer. Download again to replace it.");
    EXPECT_TRUE(log.contains("Plim captions: model would not load (the checkpoint holds no encoder)"));
    EXPECT_FALSE(fs::exists(store.markerPath(size)));
    EXPECT_FALSE(store.isReady(size));
}

} // namespace
} // namespace plim
