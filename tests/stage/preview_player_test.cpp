// The preview player on a real movie: what it shows matches the staged frame, edits show
// at once, a scrub shows a cached neighbour first, and play runs in order at the frame
// rate with the share's sound, and backwards or faster at the shuttle's speeds.
#include "media/media.h"
#include "stage/preview_player.h"
#include "stage/stage_pixels.h"
#include "stage/stage_preview.h"
#include "testkit/test_movies.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

using namespace plim;
using namespace plim::testkit;
using namespace plim::stagetest;

namespace {

constexpr int side = 320;

// Frames handed by the player's thread.
struct Handed {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<PreviewFrame> frames;
    bool playing = false;
    int playStops = 0;

    PreviewPlayer::Callbacks callbacks()
    {
        PreviewPlayer::Callbacks c;
        c.frame = [this](const PreviewFrame& f) {
            std::lock_guard lock(mutex);
            frames.push_back(f);
            changed.notify_all();
        };
        c.playing = [this](bool on) {
            std::lock_guard lock(mutex);
            playing = on;
            playStops += on ? 0 : 1;
            changed.notify_all();
        };
        return c;
    }
    // Waits until `done(frames)` holds; false after 20 s.
    template <typename Done>
    bool waitFor(Done done)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(20), [&] { return done(*this); });
    }
    // The frames handed so far, which are then forgotten.
    std::vector<PreviewFrame> take()
    {
        std::lock_guard lock(mutex);
        return std::exchange(frames, {});
    }
    int stops()
    {
        std::lock_guard lock(mutex);
        return playStops;
    }
};

void expectNear(Rgba a, Rgba b, const std::string& where)
{
    EXPECT_NEAR(a.r, b.r, 12) << where;
    EXPECT_NEAR(a.g, b.g, 12) << where;
    EXPECT_NEAR(a.b, b.b, 12) << where;
}

struct PreviewPlayerTest : ::testing::Test {
    TempDir dir;
    fs::path movie = dir / "B.mov";
    TestMovie source;

    void SetUp() override
    {
        source.tones = {1.5};
        source.toneLength = 0.1;
        ASSERT_TRUE(writeTestMovie(movie, source));
    }

    StagingJob job(PlimLook look = {}, EditPlan plan = {})
    {
        return {.movie = movie,
            .cursor = testTrack(source),
            .plan = std::move(plan),
            .spec = wearing(StageSpec{}, look),
            .look = look,
            .canvas = RenderRules::PixelSize{side, side * 5 / 8}};
    }

    std::unique_ptr<PreviewPlayer> open(const StagingJob& j, Handed& handed,
        std::unique_ptr<SoundOutput> sound = nullptr)
    {
        auto player = PreviewPlayer::open(
            j, {.width = j.canvas->width, .height = j.canvas->height, .sound = std::move(sound)}, handed.callbacks());
        EXPECT_TRUE(player) << player.error().sentence;
        return player ? std::move(*player) : nullptr;
    }
};

TEST_F(PreviewPlayerTest, SeeksAndEditsShowTheStagedFrameAndScrubsShowACachedNeighbourFirst)
{
    Handed handed;
    const StagingJob dawn = job();
    auto player = open(dawn, handed);
    ASSERT_TRUE(player);
    auto reference = StagePreview::open(dawn);
    ASSERT_TRUE(reference) << reference.error().sentence;
    const int cx = side / 2, cy = side * 5 / 16, corner = 3;

    auto exactAt = [&](double t) {
        const double slotTime = static_cast<double>(RenderRules::slotOf(t, 60)) / 60;
        std::optional<PreviewFrame> found;
        EXPECT_TRUE(handed.waitFor([&](Handed& h) {
            for (const auto& f : h.frames)
                if (f.exact && std::abs(f.outputTime - slotTime) < 1e-9)
                    found = f;
            return found.has_value();
        })) << "no frame at " << t;
        return found;
    };
    for (double t : {2.4, 0.3, 1.5}) {
        player->seek(t);
        auto shown = exactAt(t);
        ASSERT_TRUE(shown);
        auto drawn = (*reference)->frame(shown->outputTime);
        ASSERT_TRUE(drawn);
        expectNear(at(shown->image, cx, cy), at(*drawn, cx, cy), "card at " + std::to_string(t));
        expectNear(at(shown->image, corner, corner), at(*drawn, corner, corner), "backdrop at " + std::to_string(t));
        // The middle of the recording lands at the card's middle.
        const Point middle = shown->placement.sourceToOutput.apply(Point{side / 2.0, 100});
        EXPECT_NEAR(middle.x, cx, 2);
        EXPECT_NEAR(middle.y, cy, 2);
    }

    // A scrub to a frame not drawn yet shows the nearest drawn one (0.3 s) first.
    handed.take();
    player->seek(0.4, true);
    ASSERT_TRUE(exactAt(0.4));
    {
        std::lock_guard lock(handed.mutex);
        ASSERT_GE(handed.frames.size(), 2u);
        EXPECT_FALSE(handed.frames.front().exact);
        EXPECT_EQ(handed.frames.front().slot, RenderRules::slotOf(0.3, 60));
    }

    // New edits redraw the frame shown at once: another backdrop in the corner.
    const StagingJob grey = job({.backdrop = PlimLook::Backdrop::graphite});
    handed.take();
    player->setJob(grey);
    auto redrawn = exactAt(0.4);
    ASSERT_TRUE(redrawn);
    auto before = (*reference)->frame(redrawn->outputTime);
    auto greyReference = StagePreview::open(grey);
    ASSERT_TRUE(greyReference);
    auto after = (*greyReference)->frame(redrawn->outputTime);
    ASSERT_TRUE(before && after);
    expectNear(at(redrawn->image, corner, corner), at(*after, corner, corner), "new backdrop");
    EXPECT_GT(distance(at(*before, corner, corner), at(redrawn->image, corner, corner)), 40);
}

TEST_F(PreviewPlayerTest, PlayRunsInOrderAtTheFrameRateWithTheEditsSound)
{
    // One second of output: raw 1 .. 2 s, the tone at raw 1.5 s playing at output 0.5 s.
    Handed handed;
    auto sound = std::make_unique<ScriptedSoundOutput>();
    ScriptedSoundOutput* heard = sound.get();
    auto player = open(job({}, {.trimIn = 1.0, .trimOut = 2.0}), handed, std::move(sound));
    ASSERT_TRUE(player);
    ASSERT_TRUE(handed.waitFor([](Handed& h) { return !h.frames.empty(); }));
    for (int i = 0; i < 500 && !player->hasSound(); ++i) // the sound opens after the first frame
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(player->hasSound());
    EXPECT_NEAR(player->duration(), 1.0, 1e-6);
    handed.take();
    const auto started = std::chrono::steady_clock::now();
    player->play();
    ASSERT_TRUE(handed.waitFor([](Handed& h) { return h.playStops > 0; }));
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_GT(took, 0.9);
    EXPECT_LT(took, 1.6);

    const std::vector<PreviewFrame> frames = handed.take();
    const auto counters = player->counters();
    ASSERT_FALSE(frames.empty());
    for (std::size_t i = 1; i < frames.size(); ++i)
        EXPECT_GT(frames[i].slot, frames[i - 1].slot) << "frame " << i;
    // Every slot was either shown or dropped for lack of time; most were shown.
    EXPECT_GE(static_cast<int64_t>(frames.size()) + counters.dropped, 58);
    EXPECT_GE(static_cast<int64_t>(frames.size()), 30);
    // The recording turns green at raw 1 s and blue at 2 s: what plays is the trimmed part.
    EXPECT_GT(at(frames[frames.size() / 2].image, side / 2, side * 5 / 16).g, 150);

    // One second of sound, its tone half-way through as the mix places it.
    const std::vector<float> pcm = heard->received();
    const int64_t total = static_cast<int64_t>(pcm.size() / 2);
    EXPECT_NEAR(static_cast<double>(total), soundSampleRate, 2400 + 1);
    auto loudness = [&](double from, double to) {
        double peak = 0;
        for (int64_t f = std::llround(from * soundSampleRate); f < std::min<int64_t>(total, std::llround(to * soundSampleRate)); ++f)
            peak = std::max(peak, static_cast<double>(std::abs(pcm[static_cast<size_t>(2 * f)])));
        return peak;
    };
    EXPECT_GT(loudness(0.52, 0.58), 0.2);
    EXPECT_LT(loudness(0.0, 0.45), 0.05);
    EXPECT_LT(loudness(0.7, 1.0), 0.05);

    // Seeks to `from`, waits for its frame and forgets what was handed; the play stops so far.
    auto seekTo = [&](double from) {
        player->seek(from);
        EXPECT_TRUE(handed.waitFor([&](Handed& h) { return !h.frames.empty() && std::abs(h.frames.back().outputTime - from) < 0.02; }));
        handed.take();
        return handed.stops();
    };
    // The shuttle: backwards from 0.9 s frame by frame at twice the speed, then forwards at
    // twice the speed from the start.
    auto shuttle = [&](double from, double rate) {
        const int stops = seekTo(from);
        const auto began = std::chrono::steady_clock::now();
        player->setRate(rate);
        player->play();
        EXPECT_TRUE(handed.waitFor([&](Handed& h) { return h.playStops > stops; }));
        return std::pair{std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count(), handed.take()};
    };
    auto [back, backFrames] = shuttle(0.9, -2);
    ASSERT_GE(backFrames.size(), 5u);
    for (std::size_t i = 1; i < backFrames.size(); ++i)
        EXPECT_LT(backFrames[i].slot, backFrames[i - 1].slot) << "backwards frame " << i;
    EXPECT_EQ(backFrames.back().slot, 0);
    EXPECT_GT(back, 0.3);
    EXPECT_LT(back, 1.0);
    auto [fast, fastFrames] = shuttle(0.0, 2);
    ASSERT_FALSE(fastFrames.empty());
    EXPECT_GT(fastFrames.back().outputTime, 0.95);
    EXPECT_GT(fast, 0.35);
    EXPECT_LT(fast, 0.9);

    // Looping: from 0.7 s on past the end into the start of the next lap, without a stop.
    const int stops = seekTo(0.7);
    player->setLooping(true);
    player->play();
    auto wrapped = [](const std::vector<PreviewFrame>& frames) {
        for (std::size_t i = 1; i < frames.size(); ++i)
            if (frames[i].slot < frames[i - 1].slot)
                return i;
        return std::size_t{0};
    };
    ASSERT_TRUE(handed.waitFor([&](Handed& h) {
        return wrapped(h.frames) != 0 && h.frames.back().outputTime > 0.3;
    }));
    const std::vector<PreviewFrame> lap = handed.take();
    EXPECT_EQ(handed.stops(), stops) << "play went on past the end";
    player->pause();
    const std::size_t wrap = wrapped(lap);
    EXPECT_GE(lap[wrap - 1].slot, 50) << "the lap ran to its end";
    // Near the start, not back at 0.7 s (slot 42); a loaded machine may drop the first frames.
    EXPECT_LE(lap[wrap].slot, 24) << "the next lap began at the start";
    for (std::size_t i = wrap + 1; i < lap.size(); ++i)
        EXPECT_GT(lap[i].slot, lap[i - 1].slot) << "frame " << i << " of the new lap";
}

} // namespace
