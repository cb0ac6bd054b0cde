// The staging engine on real movies: what comes out is checked with ffprobe and by its
// pixels and sound; failures leave no file and the plim as it was.
#include "media/media.h"
#include "stage/stage_backdrop.h"
#include "stage/stage_preview.h"
#include "stage/staging_engine.h"
#include "stage/stage_pixels.h"
#include "testkit/test_movies.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

using namespace plim;
using namespace plim::testkit;
using namespace plim::stagetest;

namespace {

struct StagingEngineTest : ::testing::Test {
    TempDir dir;
    fs::path movie = dir / "B.mov";
    TestMovie source;

    void SetUp() override
    {
        source.tones = {2.5};
        ASSERT_TRUE(writeTestMovie(movie, source));
    }

    StagingJob job(EditPlan plan = {}, bool reframe = true)
    {
        return {.movie = movie, .cursor = testTrack(source), .plan = std::move(plan), .reframe = reframe};
    }
};

// The dominant channel of a colour: 'r', 'g' or 'b'.
char dominant(Rgba c) { return c.r > c.g && c.r > c.b ? 'r' : c.g > c.b ? 'g' : 'b'; }
// ... of a picture's top-left area, and of a colour given as 0xRRGGBB.
char dominant(const Image& image) { return dominant(at(image, 12, 12)); }
char expectedChannel(uint32_t rgb) { return dominant(Rgba{int(rgb & 0xff), int(rgb >> 8 & 0xff), int(rgb >> 16 & 0xff)}); }

TEST_F(StagingEngineTest, ReframedMoviesFollowThePlanInLengthPictureAndSound)
{
    // {name, edit, output seconds, where the source's tone at 2.5 s lands}
    for (const auto& [name, plan, outputSeconds, toneAt] :
        std::vector<std::tuple<const char*, EditPlan, double, double>>{
            {"no edit", {}, 3.0, 2.5},
            // 0.1 trimmed, 0.6 s played in 0.15, 0.5 cut and 0.2 trimmed at the end.
            {"trims, a cut and a stretch four times as fast",
                {.skips = {{{0.2, 0.8}, false, 4}}, .trimIn = 0.1, .trimOut = 2.8, .cuts = {{"C1", 1.2, 1.7, {}}}},
                1.75, 1.45},
        }) {
        SCOPED_TRACE(name);
        auto j = job(plan);
        auto outcome = StagingEngine::stage(j, {}, {});
        ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;
        const auto& result = outcome.value;
        EXPECT_EQ(result.stagedURL, dir / "B.reframe.mp4");
        auto probe = ffprobe(result.stagedURL);
        EXPECT_EQ(probe.width, 320);
        EXPECT_EQ(probe.height, 200);
        EXPECT_NEAR(probe.frameRate, 60, 0.01);
        EXPECT_NEAR(static_cast<double>(probe.frames) / 60, outputSeconds, 1.0 / 60 + 1e-9);
        EXPECT_NEAR(result.outputDuration, outputSeconds, 1.0 / 60 + 1e-9);
        EXPECT_NEAR(probe.duration, outputSeconds, 0.05);

        // Each output frame shows the colour the time remap says, away from the colour changes.
        auto timeline = plan.clipTimeline(3.0);
        auto reader = MovieReader::create(result.stagedURL);
        ASSERT_TRUE(reader) << reader.error().sentence;
        int checked = 0;
        while (auto frame = (*reader)->next()) {
            if (!*frame)
                break;
            double raw = timeline.rawTime((*frame)->time).value_or(-1);
            double nearestChange = std::min({std::fabs(raw - 1), std::fabs(raw - 2)});
            if (nearestChange < 0.1)
                continue;
            ASSERT_EQ(dominant((*frame)->image), expectedChannel(colorAt(source, raw)))
                << "output " << (*frame)->time << " raw " << raw;
            ++checked;
        }
        EXPECT_GT(checked, 60);

        auto onsets = soundOnsets(result.stagedURL);
        ASSERT_EQ(onsets.size(), 1u);
        EXPECT_NEAR(onsets.front(), toneAt, 0.010);
    }
}

TEST_F(StagingEngineTest, StagedMovieIsAFaststartMP4AtTheCanvasOfItsQuality)
{
    auto j = job({.trimIn = 0.2, .trimOut = 0.7}, false);
    j.quality = RenderRules::Quality::p720;
    std::vector<StagingProgress> reports;
    auto outcome = StagingEngine::stage(j, [&](const StagingProgress& p) { reports.push_back(p); }, {});
    ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;
    EXPECT_EQ(outcome.value.stagedURL, dir / "B.staged.mov");
    auto probe = ffprobe(outcome.value.stagedURL);
    EXPECT_EQ(probe.width, 1152); // 720 lines at the recording's 16:10
    EXPECT_EQ(probe.height, 720);
    EXPECT_EQ(probe.frames, 30);
    std::string bytes = readText(outcome.value.stagedURL);
    EXPECT_LT(bytes.find("moov"), bytes.find("mdat")) << "the index is at the front";
    ASSERT_EQ(reports.size(), 31u); // none done, then each frame
    EXPECT_EQ(reports.front().frames, 0);
    EXPECT_EQ(reports.back().frames, 30);
    EXPECT_DOUBLE_EQ(reports.back().fraction(), 1.0);

    // One frame as stage() draws it: the card in the middle shows the recording's red.
    auto frame = StagingEngine::frame(j, 0.25);
    ASSERT_TRUE(frame) << frame.error().sentence;
    EXPECT_EQ(frame->width, 1152);
    EXPECT_GT(at(*frame, 576, 360).r, 150);
    EXPECT_LT(at(*frame, 576, 360).g, 80);
}

TEST_F(StagingEngineTest, APreviewDrawsTimesInAnyOrderFromTheRightPicture)
{
    // Back, far ahead (a seek) and a little ahead (read on), across the cut at 1 .. 1.5 s.
    auto j = job({.cuts = {{"C1", 1, 1.5, {}}}});
    auto preview = StagePreview::open(j);
    ASSERT_TRUE(preview) << preview.error().sentence;
    EXPECT_NEAR((*preview)->outputDuration(), 2.5, 1e-9);
    auto timeline = j.plan.clipTimeline(3.0);
    for (double t : {1.2, 0.3, 2.4, 0.2, 0.6, 0.9, 1.6, 1.8, 0.0}) {
        auto frame = (*preview)->frame(t);
        ASSERT_TRUE(frame) << frame.error().sentence;
        const double raw = *timeline.rawTime(t);
        EXPECT_EQ(dominant(*frame), expectedChannel(colorAt(source, raw))) << "output " << t << " raw " << raw;
    }
}

// The look an edits file carries reaches the staged frame, with what the engine itself takes
// from it: the pointer's glide, the 16:10 canvas, the backdrop's fallback, the pointer's size
// and its fading at rest.
TEST_F(StagingEngineTest, TheLookReachesTheStagedFrame)
{
    const double t = 1.6; // the pointer sweeps right along the middle; the click at 1.5 s rings
    auto stagedAt = [&](const PlimLook& look, double at, const CursorTrack* cursor,
                        std::optional<RenderRules::PixelSize> canvas) {
        StagingJob j = job({}, false);
        if (cursor)
            j.cursor = *cursor;
        j.look = look;
        j.spec = wearing(StageSpec{}, look);
        j.canvas = canvas;
        j.quality = RenderRules::Quality::p720;
        auto preview = StagePreview::open(j);
        EXPECT_TRUE(preview) << preview.error().sentence;
        auto frame = preview ? (*preview)->frame(at) : Result<Image>(Image{});
        EXPECT_TRUE(frame) << frame.error().sentence;
        return frame ? *frame : Image{};
    };
    auto staged = [&](const PlimLook& look, double at = 1.6 /* t */, const CursorTrack* cursor = nullptr) {
        return stagedAt(look, at, cursor, RenderRules::PixelSize{640, 400});
    };
    auto luma = [](const Image& f, int x, int y) { return at(f, x, y).luma(); };
    auto green = [](const Image& f, int x, int y) {
        const Rgba p = at(f, x, y);
        return p.g > 150 && p.r < 90 && p.b < 90;
    };
    // The card's edges, found by where the green recording shows on the middle row and column.
    struct Card {
        int left = -1, right = -1, top = -1, bottom = -1;
    };
    auto card = [&](const Image& f) {
        Card c;
        for (int x = 0; x < f.width; ++x)
            if (green(f, x, f.height / 2)) {
                c.right = x;
                if (c.left < 0)
                    c.left = x;
            }
        for (int y = 0; y < f.height; ++y)
            if (green(f, f.width / 2 - 60, y)) {
                c.bottom = y;
                if (c.top < 0)
                    c.top = y;
            }
        return c;
    };
    // The leftmost dark pointer pixel just below its tip, on the card's middle row.
    auto pointerX = [&](const Image& f, int row) {
        for (int x = 0; x < f.width; ++x)
            if (luma(f, x, row) < 50)
                return x;
        return -1;
    };

    const PlimLook plain;
    const Image base = staged(plain);
    ASSERT_FALSE(base.isEmpty());
    const Card c = card(base);
    ASSERT_GT(c.left, 0);
    ASSERT_GT(c.top, 0);
    const int cy = (c.top + c.bottom) / 2;

    // The look reaches the frame (how each field draws is StageRenderer's and wearing()'s to
    // check): the corner takes the chosen art's colour (graphite is dark, dawn is light).
    const Image graphite = staged({.backdrop = PlimLook::Backdrop::graphite});
    EXPECT_LT(luma(graphite, 4, 4) + 60, luma(base, 4, 4));
    // Glide: off, the pointer is where it was recorded; on, it trails behind on its spring.
    const Image direct = staged({.cursorGlide = false});
    const double recorded = c.left + (0.2 + 0.6 * t / source.duration) * (c.right - c.left + 1);
    EXPECT_NEAR(pointerX(direct, cy + 6), recorded, 5);
    EXPECT_LT(pointerX(base, cy + 6), recorded - 8);

    // A picture that cannot be read, and a wallpaper the desktop does not name, leave the
    // gradient and say so; the file stays as it was.
    const fs::path broken = dir / "broken.png";
    writeText(broken, "not a picture");
    const PlimLook pictured{.backdrop = PlimLook::Backdrop::image, .backdropImage = broken.string()};
    const PlimLook papered{.backdrop = PlimLook::Backdrop::wallpaper};
    const Image fallback = staged(pictured), noWallpaper = staged(papered);
    EXPECT_EQ(distance(at(fallback, 4, 4), at(noWallpaper, 4, 4)), 0);
    EXPECT_GT(changed(fallback, base, 0, 0, 20, 20), 300) << "the gradient, not the look's dawn";
    EXPECT_NE(backdropFallback(wearing(StageSpec{}, pictured), std::nullopt).value_or("").find("broken.png"), std::string::npos);
    EXPECT_NE(backdropFallback(wearing(StageSpec{}, papered), std::nullopt).value_or("").find("wallpaper"), std::string::npos);
    EXPECT_FALSE(backdropFallback(wearing(StageSpec{}, plain), std::nullopt));
    EXPECT_EQ(readText(broken), "not a picture");

    // 16:10: a canvas of that shape whatever the recording's, where 16:9 follows the recording.
    StagingJob wide = job({}, false);
    wide.look.shape = PlimLook::Shape::wide;
    EXPECT_EQ(StagingEngine::canvas(wide, Size{1920, 1080}), (RenderRules::PixelSize{1728, 1080}));
    wide.look.shape = PlimLook::Shape::landscape;
    EXPECT_EQ(StagingEngine::canvas(wide, Size{1920, 1080}), (RenderRules::PixelSize{1920, 1080}));
    const Image wideFrame = stagedAt({.shape = PlimLook::Shape::wide}, t, nullptr, std::nullopt);
    EXPECT_EQ(std::pair(wideFrame.width, wideFrame.height), std::pair(1152, 720));

    // Pointer size: twice the size covers about four times the dark pixels.
    auto darkPixels = [&](const Image& f) {
        int n = 0;
        for (int y = 0; y < f.height; ++y)
            for (int x = 0; x < f.width; ++x)
                n += luma(f, x, y) < 40;
        return n;
    };
    const int usual = darkPixels(base);
    EXPECT_GT(usual, 10);
    EXPECT_GT(darkPixels(staged({.pointerSize = 200})), 3 * usual);
    // A resting pointer fades once it has rested a while, unless the look keeps it.
    CursorTrack resting = testTrack(source);
    for (auto& sample : resting.samples)
        sample.x = source.width * 0.3;
    resting.clicks.clear();
    EXPECT_GT(darkPixels(staged(plain, 0.6, &resting)), usual / 2) << "shown while it has rested briefly";
    EXPECT_EQ(darkPixels(staged(plain, 2.9, &resting)), 0) << "gone after resting";
    EXPECT_GT(darkPixels(staged({.pointerHidesIdle = false}, 2.9, &resting)), usual / 2);
}

// Pixels of the picture's bottom-right quarter within 40 of a colour (0xRRGGBB) in every channel.
int countNear(const Image& image, uint32_t rgb)
{
    const Rgba want{int(rgb & 0xff), int(rgb >> 8 & 0xff), int(rgb >> 16 & 0xff)};
    int n = 0;
    for (int y = image.height / 2; y < image.height; ++y)
        for (int x = image.width / 2; x < image.width; ++x) {
            const Rgba p = at(image, x, y);
            n += std::abs(p.r - want.r) < 40 && std::abs(p.g - want.g) < 40 && std::abs(p.b - want.b) < 40;
        }
    return n;
}

TEST_F(StagingEngineTest, TheCameraBubbleShowsTheCameraMovieAtItsOffset)
{
    ASSERT_TRUE(writeTestMovie(dir / "B.camera.mov",
        {.width = 160, .height = 120, .colors = {{0, 0xff00ff}, {1, 0x00ffff}, {2, 0xffff00}}, .sound = false}));
    auto j = job({}, false);
    j.quality = RenderRules::Quality::p720;
    // {the camera's offset, output seconds, the camera's colour then, one it does not show}
    for (auto [offsetMS, when, shown, notShown] :
        std::vector<std::tuple<int64_t, double, uint32_t, uint32_t>>{{0, 0.25, 0xff00ff, 0x00ffff},
            {1000, 0.25, 0x00ffff, 0xff00ff}, // the camera started a second before the screen
            {1000, 1.5, 0xffff00, 0x00ffff}}) {
        j.cursor.cameraOffsetMS = offsetMS;
        auto frame = StagingEngine::frame(j, when);
        ASSERT_TRUE(frame) << frame.error().sentence;
        EXPECT_GT(countNear(*frame, shown), 2000) << offsetMS << " at " << when;
        EXPECT_EQ(countNear(*frame, notShown), 0) << offsetMS << " at " << when;
    }
    // Without an offset in the track there is no camera to place.
    j.cursor.cameraOffsetMS.reset();
    auto bare = StagingEngine::frame(j, 0.25);
    ASSERT_TRUE(bare);
    EXPECT_EQ(countNear(*bare, 0xff00ff), 0);
}

// The reader's and the edit's own refusals are checked by MovieReader and StagingError; here,
// that they reach the outcome and nothing is left behind.
TEST_F(StagingEngineTest, FailuresGiveTheirSentenceAndLeaveNothingBehind)
{
    struct Case {
        const char* name;
        std::function<void(StagingJob&)> arrange;
        std::string sentence;
        bool stopped = false;
    };
    const Case cases[] = {
        {"a file that is not a movie",
            [&](StagingJob&) { writeText(movie, "this is not a movie"); },
            "B.mov is not a movie Plim can read ("},
        {"an edit that removes everything", [&](StagingJob& j) { j.plan = {.cuts = {{"C1", 0, 3, {}}}}; },
            "This edit removes the whole plim."},
        {"a sink that accepts nothing",
            [&](StagingJob& j) {
                j.stallLimit = 0.3;
                j.makeSink = [](const VideoSink::Settings&) -> Result<std::unique_ptr<VideoSink>> {
                    return std::make_unique<StalledSink>();
                };
            },
            "Rendering made no progress for 0.3 seconds and was stopped."},
        {"stopped part way", [&](StagingJob&) {}, "Stopped. Nothing was saved.", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(writeTestMovie(movie, source));
        auto j = job();
        c.arrange(j);
        auto before = folderContents(dir.path());
        StopSource stop;
        auto outcome = StagingEngine::stage(j,
            [&](const StagingProgress& p) {
                if (c.stopped && p.frames == 10)
                    stop.request_stop();
            },
            stop.get_token());
        EXPECT_EQ(outcome.isStopped(), c.stopped);
        EXPECT_EQ(outcome.isFailed(), !c.stopped);
        EXPECT_TRUE(outcome.sentence.starts_with(c.sentence)) << outcome.sentence;
        EXPECT_EQ(folderContents(dir.path()), before);
    }
}

TEST_F(StagingEngineTest, AFullDiskGivesTheWriterSentenceAndLeavesNoPartialFile)
{
    SmallDisk small("200k");
    if (!small.isUp())
        GTEST_SKIP() << "a small tmpfs cannot be mounted here (" << std::strerror(errno) << "), so a full disk is not tried";
    source.noise = true;
    ASSERT_TRUE(writeTestMovie(movie, source));
    auto before = folderContents(dir.path());
    auto j = job({.trimIn = 0, .trimOut = 1}, false); // about 0.8 MB at 720 lines
    j.quality = RenderRules::Quality::p720;
    j.output = small / "B.staged.mov";
    auto outcome = StagingEngine::stage(j, {}, {});
    ASSERT_TRUE(outcome.isFailed());
    EXPECT_TRUE(outcome.sentence.starts_with("The file could not be written: ")) << outcome.sentence;
    EXPECT_TRUE(fs::is_empty(small.path()));
    EXPECT_EQ(folderContents(dir.path()), before);
}

} // namespace
