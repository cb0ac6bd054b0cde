// Shares of real movies, checked with ffprobe, giflib and by their sound: sizes, rates and
// bit rates, GIF timing, stop and stall leaving nothing, unique names, original copies,
// voiceovers ducking the recording. How frames are paced, coded and mixed is checked where
// that is done (RenderRules, MovieWriter, SoundMixer); here, that a share takes it up.
#include "library/library.h"
#include "base/dates.h"
#include "media/media.h"
#include "share/gif_check.h"
#include "share/share_engine.h"
#include "testkit/test_movies.h"

#include <gtest/gtest.h>

#include <cmath>
#include <thread>

using namespace plim;
using namespace plim::testkit;

namespace {

// A desktop that keeps the original, records what was shared and has no clipboard.
struct Desk {
    std::vector<std::string> shared;
    std::vector<fs::path> clipboard;
    ShareEngine::Environment environment(const fs::path& copies)
    {
        return {.keepOriginal = [] { return true; },
            .copyToClipboard = [this](const fs::path& file) -> Status {
                clipboard.push_back(file);
                return {};
            },
            .wallpaperURL = [] { return std::nullopt; },
            .copiesFolder = [copies] { return copies; },
            .didShare
            = [this](const std::string& kind, const std::string& path) { shared.push_back(kind + " " + path); }};
    }
};

// Random tiles, so the encoder has to spend its whole bit rate.
Status writeNoisyMovie(const fs::path& path, int width, int height, double fps, double seconds)
{
    // Enough bits that every frame keeps its tiles.
    auto writer = PLIM_TRY(MovieWriter::create({.path = path,
        .container = MovieWriter::Container::fragmentedMov,
        .width = width,
        .height = height,
        .frameRate = fps,
        .bitsPerSecond = 60'000'000,
        .preset = "ultrafast",
        .sound = {MovieWriter::systemSoundTrack()}}));
    uint32_t state = 2463534242u;
    const int tileColumns = width / 16 + 1, tileRows = height / 16 + 1;
    std::vector<uint32_t> tiles(size_t(tileColumns * tileRows));
    for (uint32_t& tile : tiles) {
        state ^= state << 13, state ^= state >> 17, state ^= state << 5;
        tile = 0xff000000u | (state & 0xffffffu);
    }
    Image image = Image::allocate(width, height);
    for (int i = 0; i < std::lround(seconds * fps); ++i) {
        // Tiles of 16 pixels, each a random colour, scrolling 6 pixels a frame: more detail
        // than the bit rate can carry, moving the way a scrolled page does.
        const int shift = 6 * i;
        for (int y = 0; y < height; ++y) {
            auto* row = reinterpret_cast<uint32_t*>(image.row(y));
            for (int x = 0; x < width; ++x)
                row[x] = tiles[size_t(((y + shift) / 16) % tileRows * tileColumns + x / 16)];
        }
        PLIM_TRY(writer->appendVideo(image, i / fps));
    }
    const std::vector<float> pcm = toneTrack(seconds, {}, 0.08);
    PLIM_TRY(writer->appendAudio(0, pcm.data(), static_cast<int64_t>(pcm.size() / 2), 0));
    return writer->finish();
}

struct ShareTest : ::testing::Test {
    XdgSandbox sandbox;
    TempDir plims, out;
    Desk desk;
    ShareEngine engine{desk.environment(sandbox.home() / "copies")};

    fs::path smallPlim(const std::string& name, TestMovie movie = {})
    {
        const fs::path path = plims / name;
        EXPECT_TRUE(writeTestMovie(path, movie));
        return path;
    }
    std::vector<std::string> outFiles() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(out.path()))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
};

// RMS of the left channel in [from, to) seconds.
double rms(const std::vector<float>& pcm, double from, double to)
{
    double sum = 0;
    int64_t n = 0;
    for (int64_t f = std::llround(from * soundSampleRate); f < std::llround(to * soundSampleRate); ++f, ++n)
        sum += double(pcm.at(size_t(f) * 2)) * pcm.at(size_t(f) * 2);
    return n ? std::sqrt(sum / double(n)) : 0;
}

} // namespace

TEST_F(ShareTest, A1080pShareOfA2560By1600PlimHasItsCanvasRateAndBitRate)
{
    const fs::path movie = plims / "Wide.mov";
    ASSERT_TRUE(writeNoisyMovie(movie, 2560, 1600, 30, 2.0));
    std::vector<ShareProgress> seen;
    engine.onProgress = [&](const ShareProgress& p) { seen.push_back(p); };
    ShareOutcome outcome = engine.share(movie, ShareKind::video, ShareQuality::p1080, ShareDestination::save(out.path()));
    ASSERT_EQ(outcome.kind, ShareOutcome::Kind::finished) << outcome.sentence;
    EXPECT_EQ(outcome.url, out / "Wide.mp4");
    EXPECT_EQ(outcome.bytes, int64_t(fs::file_size(outcome.url)));
    EXPECT_EQ(outcome.note, "Saved Wide.mp4, " + ShareOptions::sizeText(outcome.bytes) + ".");

    Probe probe = ffprobe(outcome.url);
    EXPECT_EQ(probe.width, 1728);
    EXPECT_EQ(probe.height, 1080);
    EXPECT_NEAR(probe.frameRate, 60, 1e-9);
    // Two seconds at 60 a second, held to the recording's end by the pacing rule.
    auto info = MovieReader::create(movie);
    ASSERT_TRUE(info);
    EXPECT_EQ(probe.frames, RenderRules::expectedFrames(EditPlan{}, (*info)->info().duration, (*info)->info().frameRate, 60));
    const double target = double(exportBitsPerSecond(1728, 1080));
    EXPECT_NEAR(std::atof(testkit::probe(outcome.url, "v:0", "stream=bit_rate").c_str()), target, 0.1 * target);

    // The checklist went through its stages in order and ended with everything done.
    ASSERT_FALSE(seen.empty());
    const ShareProgress& last = engine.progress();
    std::vector<std::string> states;
    for (const ShareStage& stage : last.stages)
        states.push_back(std::string(ShareStage::name(stage.id)) + "=" + std::string(ShareStage::name(stage.state)));
    EXPECT_EQ(states, (std::vector<std::string>{"read=done", "edit=done", "frames=done", "captions=skipped", "write=done",
                          "copyOriginal=skipped"}));
    EXPECT_EQ(last.stage(ShareStage::ID::write)->detail, std::to_string(probe.frames) + " frames");
    EXPECT_EQ(last.stage(ShareStage::ID::read)->detail, "2.0 s, as recorded");
    EXPECT_EQ(last.stage(ShareStage::ID::frames)->title, "Rendered");
    EXPECT_DOUBLE_EQ(last.fraction, 1.0);
    EXPECT_EQ(desk.shared, (std::vector<std::string>{"video " + (out / "Wide.mp4").string()}));
    EXPECT_FALSE(engine.isRunning());
}

TEST_F(ShareTest, AMediumGifOfA16By9PlimIs1152By648At12FramesASecondOnTheClipboard)
{
    const fs::path movie = smallPlim("Clip.mov", {.width = 640, .height = 360, .duration = 1.0, .sound = false});
    ShareOutcome outcome = engine.share(movie, ShareKind::gif, ShareQuality::p1080, ShareDestination::copy());
    ASSERT_EQ(outcome.kind, ShareOutcome::Kind::finished) << outcome.sentence;
    EXPECT_EQ(outcome.url, sandbox.home() / "copies" / "Clip.gif");
    EXPECT_EQ(desk.clipboard, (std::vector<fs::path>{outcome.url}));
    EXPECT_EQ(outcome.note, "Copied Clip.gif, " + ShareOptions::sizeText(outcome.bytes) + ". Paste it into Slack, Mail or Messages.");
    DecodedGif gif = decodeGif(outcome.url);
    EXPECT_EQ(gif.width, 1152);
    EXPECT_EQ(gif.height, 648);
    ASSERT_EQ(gif.delays.size(), 12u);
    for (int delay : gif.delays)
        EXPECT_EQ(delay, 8);
}

TEST_F(ShareTest, AStopHalfWayAStalledWriterAndRefusalsLeaveNoFile)
{
    const fs::path movie = smallPlim("Busy.mov", {.duration = 2.0});
    engine.onProgress = [&](const ShareProgress& p) {
        if (p.framesDone >= p.framesTotal / 2 && p.framesDone > 0)
            engine.stop();
    };
    ShareOutcome stopped = engine.share(movie, ShareKind::video, ShareQuality::p720, ShareDestination::save(out.path()));
    EXPECT_EQ(stopped.kind, ShareOutcome::Kind::stopped);
    EXPECT_EQ(stopped.sentence, "Stopped. Nothing was saved.");
    EXPECT_TRUE(outFiles().empty());

    // A writer that takes five frames and then accepts nothing more.
    engine.onProgress = nullptr;
    const ShareEngine::Tuning tuning{
        .stallLimit = 1, .makeSink = [](const VideoSink::Settings& settings) -> Result<std::unique_ptr<VideoSink>> {
            writeText(settings.path, "partial");
            return std::make_unique<StalledSink>(5);
        }};
    const auto started = std::chrono::steady_clock::now();
    ShareOutcome stalled = engine.share(movie, ShareKind::video, ShareQuality::p720, ShareDestination::save(out.path()), tuning);
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_EQ(stalled.kind, ShareOutcome::Kind::failed);
    EXPECT_EQ(stalled.sentence, "Sharing made no progress for 1 seconds and was stopped. Nothing was saved and your plim is "
                                "untouched. Share again; a smaller quality is faster.");
    EXPECT_GE(took, 1.0);
    EXPECT_LT(took, 10.0);
    EXPECT_TRUE(outFiles().empty());

    // Refusals come before anything is written: a second share while one runs, at once.
    std::optional<ShareOutcome> second;
    engine.onProgress = [&](const ShareProgress&) {
        if (!second && engine.isRunning())
            second = engine.share(movie, ShareKind::gif, ShareQuality::p720, ShareDestination::save(out.path()));
    };
    ShareOutcome first = engine.share(movie, ShareKind::original, ShareQuality::p720, ShareDestination::save(out.path()));
    EXPECT_EQ(first.kind, ShareOutcome::Kind::finished);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->sentence, "This plim is already being shared. Wait for that to finish, then share again.");
    engine.onProgress = nullptr;

    // An edit that removes everything fails at the edit stage.
    PlimEdits edits;
    edits.plan.cuts.push_back({makeUuid(), 0, 100, {}});
    ASSERT_TRUE(edits.write(movie, "test"));
    ShareOutcome empty = engine.share(movie, ShareKind::video, ShareQuality::p720, ShareDestination::save(out.path()));
    EXPECT_EQ(empty.sentence, "This edit removes the whole plim. Move the trim handles or delete a cut, then export again.");
    EXPECT_EQ(engine.progress().stage(ShareStage::ID::edit)->state, ShareStage::State::failed);

    // A voiceover without its sound file fails at the read stage.
    edits.plan = {};
    edits.voiceovers.push_back({makeUuid(), 65, 2, "voice.m4a", 0.25});
    ASSERT_TRUE(edits.write(movie, "test"));
    ShareOutcome voiceless = engine.share(movie, ShareKind::video, ShareQuality::p720, ShareDestination::save(out.path()));
    EXPECT_EQ(voiceless.sentence, "The voiceover at 1:05 is missing its sound file (voice.m4a). Put the file back in the "
                                  "plim's folder, or delete that voiceover in the editor.");
    ShareOutcome missing = engine.share(plims / "none.mov", ShareKind::video, ShareQuality::p720, ShareDestination::save(out.path()));
    EXPECT_EQ(missing.kind, ShareOutcome::Kind::failed);
    EXPECT_EQ(outFiles(), (std::vector<std::string>{"Busy.mov"}));
}

TEST_F(ShareTest, OriginalsCopyByteForByteAndAStillVideoComesOutAtTheSizeSaidBeforeIt)
{
    const fs::path movie = smallPlim("clip.mov");
    const std::string bytes = readText(movie);
    std::vector<std::string> names;
    for (int i = 0; i < 3; ++i) {
        ShareOutcome outcome = engine.share(movie, ShareKind::original, ShareQuality::p1080, ShareDestination::save(out.path()));
        ASSERT_EQ(outcome.kind, ShareOutcome::Kind::finished) << outcome.sentence;
        EXPECT_EQ(readText(outcome.url), bytes);
        names.push_back(outcome.url.filename().string());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"clip.mov", "clip 2.mov", "clip 3.mov"}));
    EXPECT_EQ(outFiles(), (std::vector<std::string>{"clip 2.mov", "clip 3.mov", "clip.mov"}));
    const ShareProgress progress = engine.progress();
    EXPECT_EQ(progress.stage(ShareStage::ID::copyOriginal)->state, ShareStage::State::done);
    EXPECT_EQ(progress.stage(ShareStage::ID::frames)->state, ShareStage::State::skipped);

    // A video share names itself the same way, and never replaces a file that appears at
    // its name while it renders. Its size is said before the first frame, and a still
    // picture, which needs far fewer bits than its rate, still comes out at it.
    std::string before;
    engine.onProgress = [&](const ShareProgress& p) {
        if (p.framesDone == 0 && p.stage(ShareStage::ID::write)->state == ShareStage::State::now)
            before = p.stage(ShareStage::ID::write)->detail;
        if (p.framesDone > 0 && !fs::exists(out / "clip.mp4"))
            writeText(out / "clip.mp4", "appeared");
    };
    ShareOutcome video = engine.share(movie, ShareKind::video, ShareQuality::p720, ShareDestination::save(out.path()));
    ASSERT_EQ(video.kind, ShareOutcome::Kind::finished) << video.sentence;
    EXPECT_EQ(video.url, out / "clip 2.mp4");
    EXPECT_EQ(readText(out / "clip.mp4"), "appeared");
    EXPECT_TRUE(video.note.value_or("").starts_with("Saved clip 2.mp4, ")) << video.note.value_or("");
    EXPECT_TRUE(before.ends_with(" · about " + ShareOptions::sizeText(video.estimate))) << before;
    EXPECT_NEAR(double(video.bytes), double(video.estimate), 0.15 * double(video.estimate));
}

TEST_F(ShareTest, AVoiceoverDucksTheRecordingToMicUnderAndBackOverAFifteenthOfASecond)
{
    // A steady 1 kHz tone at 0.5.
    const TestMovie recording{.width = 320, .height = 180, .duration = 2.0, .tones = {0.0}, .toneLength = 2.0};
    const fs::path movie = smallPlim("Talk.mov", recording);
    // A silent voice: what is heard is the recording, ducked.
    ASSERT_TRUE(writeTestMovie(plims / "voice.mov", {.width = 320, .height = 180, .duration = 0.6}));
    PlimEdits edits;
    edits.voiceovers.push_back({makeUuid(), 0.8, 0.6, "voice.mov", 0.2});
    // Loud sound outside the plim's folder (the names PlimEdits::sideFile refuses are its own
    // test's): left out with a sentence and never heard.
    const fs::path secret = sandbox.home() / "secret.mov";
    ASSERT_TRUE(
        writeTestMovie(secret, {.width = 320, .height = 180, .duration = 0.6, .tones = {0.0}, .toneLength = 2.0}));
    edits.voiceovers.push_back({makeUuid(), 0.1, 0.6, secret.string(), 1.0});
    ASSERT_TRUE(edits.write(movie, "test"));

    ShareOutcome outcome = engine.share(movie, ShareKind::video, ShareQuality::p720, ShareDestination::save(out.path()));
    ASSERT_EQ(outcome.kind, ShareOutcome::Kind::finished) << outcome.sentence;
    EXPECT_EQ(outcome.notices, std::vector<std::string>{"The voiceover at 0:00 names a file outside the plim's "
                                                        "folder, so it was left out. Nothing else changed."});
    auto pcm = allSound(outcome.url);
    ASSERT_GE(pcm.size(), size_t(1.9 * soundSampleRate * 2));
    const double full = 0.5 / std::sqrt(2.0);
    EXPECT_NEAR(rms(pcm, 0.3, 0.6), full, 0.05 * full);              // before the ramp
    EXPECT_NEAR(rms(pcm, 0.9, 1.3), 0.2 * full, 0.05 * full);        // under the voice
    EXPECT_NEAR(rms(pcm, 1.6, 1.9), full, 0.05 * full);              // after it
    EXPECT_NEAR(rms(pcm, 0.72, 0.73), 0.6 * full, 0.08 * full);      // half way down the ramp (0.65 → 0.8)
    EXPECT_NEAR(rms(pcm, 1.47, 1.48), 0.6 * full, 0.08 * full);      // half way back up (1.4 → 1.55)
}
