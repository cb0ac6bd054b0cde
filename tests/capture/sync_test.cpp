// Sound on a real X server and sound server. Sync: a window turns red when clicked, and
// on a timer (the first time right after the start) turns another colour at the instant a
// tone starts sounding in the sink. The recorded movie, its cursor track and its
// system-sound track must agree: the click within about a frame of the first frame that
// shows it, every tone there, each within 20 ms of the picture (plus the frame's own
// 16.7 ms grain). Continuity: a tone that plays all along is in both sound tracks from the
// first frame to the last, without a hole or a jump, and a sound device whose clock runs
// fast or slow keeps the picture's time without one.

#include "sync_helpers.h"

#include "capture/capture_session.h"
#include "testkit/servers.h"
#include "testkit/test_window.h"

namespace plim {
namespace {

using namespace testkit;
using namespace sync;
using namespace std::chrono_literals;

// The computer's sound from a device whose sample clock runs `rate` times as fast as the
// uptime clock: 10 ms blocks of a steady 220 Hz tone, each stamped with the uptime instant
// its first sample was heard and handed over then, except for two blocks of silence that
// mark sample counts `marks`.
class DriftingSound final : public SoundSource {
public:
    static constexpr int64_t block = 480;
    static constexpr double hz = 220;
    static constexpr int64_t marks[2] = {48000, 7 * 48000};

    explicit DriftingSound(double rate) : m_rate(rate) {}
    Kind kind() const override { return Kind::systemSound; }
    std::string deviceName() const override { return "drifting"; }
    int channels() const override { return 2; }
    int sampleRate() const override { return 48000; }
    Status start(BlockHandler onBlock) override
    {
        m_thread = std::jthread([this, onBlock = std::move(onBlock)](std::stop_token stop) {
            const double start = systemUptime();
            for (int64_t n = 0; !stop.stop_requested(); ++n) {
                SoundBlock b{
                    .channels = 2, .uptime = start + double(n * block) / (48000 * m_rate), .joinsPrevious = n > 0};
                bool marked = std::ranges::any_of(marks, [&](int64_t m) { return n * block == m; });
                for (int64_t i = n * block; i < (n + 1) * block; ++i) {
                    float v = marked ? 0.0f : toneLevel * float(std::sin(2 * M_PI * hz * double(i) / 48000));
                    b.samples.insert(b.samples.end(), {v, v});
                }
                sleepUntil(b.uptime);
                onBlock(std::move(b));
            }
        });
        return {};
    }
    void stop() override { m_thread = std::jthread(); } // stops and joins the running one

private:
    double m_rate;
    std::jthread m_thread;
};

// Servers for one test, with this process's DISPLAY and Pulse variables pointing at them.
class SoundTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!x.isUp() || !pulse.isUp())
            GTEST_SKIP() << "Xvfb or pulseaudio could not start here";
        env.push_back(std::make_unique<ScopedEnv>("DISPLAY", x.display()));
        for (const auto& assignment : pulse.environment()) {
            auto eq = assignment.find('=');
            env.push_back(std::make_unique<ScopedEnv>(assignment.substr(0, eq), assignment.substr(eq + 1)));
        }
    }

    XvfbServer x{"640x480x24"};
    PulseServer pulse;
    std::vector<std::unique_ptr<ScopedEnv>> env;
    TempDir folder;
};

TEST_F(SoundTest, ClicksAndSoundLandWithThePicture)
{
    TestWindow window(x.display(), 0, 0, 640, 480, 0x808080);
    ASSERT_TRUE(window.isOpen());
    TonePlayer player;
    ASSERT_TRUE(player.isReady());
    std::this_thread::sleep_for(500ms); // until the player's timing settles

    const fs::path movie = folder / "Sync.mov";
    auto session = recordScreenAndSound(movie);
    ASSERT_TRUE(session.has_value()) << session.error().sentence;

    // A colour with a 60 ms tone right after the start, the click, then three more.
    auto flip = [&](uint32_t colour) {
        sleepUntil(player.beep(0.06));
        window.fill(colour);
    };
    std::this_thread::sleep_for(150ms);
    flip(0xffff00);
    std::this_thread::sleep_for(650ms);
    ASSERT_EQ(runCommand({"xdotool", "mousemove", "320", "240", "click", "1"}).status, 0);
    for (uint32_t colour : {0x0000ffu, 0x00ff00u, 0xffffffu}) {
        std::this_thread::sleep_for(700ms);
        flip(colour);
    }
    std::this_thread::sleep_for(700ms);
    auto outcome = (*session)->finish();
    ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;

    // First frame of each colour, in movie seconds.
    auto [firstOf, beforeFirst] = firstFrames(movie);
    for (int k = red; k < colours; ++k)
        ASSERT_GE(firstOf[k], 0) << "colour " << k << " never showed";

    // The click against the first red frame, on the track's clock.
    auto track = CursorTrack::read(movie);
    ASSERT_TRUE(track.has_value());
    ASSERT_EQ(track->value.clicks.size(), 1u);
    double clickOffsetMS = firstOf[red] * 1000 + double(track->value.videoStartOffsetMS) - double(track->value.clicks[0].t);
    // The click carries the X server's own stamp, so however late our event thread runs it
    // cannot land after the frame showing it by more than the grab's round trip. What lies
    // between is the window's own drawing, which it reports, and the wait for the next frame.
    auto shown = window.lastClick();
    ASSERT_TRUE(shown.has_value());
    double drawingMS = double(uint32_t(uint64_t(shown->shownMS)) - shown->pressedMS);
    EXPECT_GE(clickOffsetMS, -16.7);
    EXPECT_LE(clickOffsetMS, drawingMS + 100.0);
    // Within one frame of the change, unless a frame was lost right there (the capture bench
    // counts those): then only the loose bound above holds.
    double gapMS = (firstOf[red] - beforeFirst[red]) * 1000;
    if (beforeFirst[red] >= 0 && gapMS < 1.5 * 1000.0 / 60) {
        EXPECT_LE(clickOffsetMS - drawingMS, 1000.0 / 60 + 1.0) << "frames " << gapMS << " ms apart";
    }

    // Every tone's onset in the system-sound track against its colour's first frame.
    expectTonesWithThePicture(soundTrack(movie, 0),
        {firstOf[yellow], firstOf[blue], firstOf[green], firstOf[white]}, 1000.0 / 60);
}

TEST_F(SoundTest, ASteadyToneIsRecordedWholeFromTheFirstFrameOnBothTracks)
{
    TonePlayer player(true);
    ASSERT_TRUE(player.isReady());
    std::this_thread::sleep_for(300ms); // the tone plays before the recording starts

    // The microphone is the sink's monitor too, so both tracks hear the tone.
    const fs::path movie = folder / "Tone.mov";
    auto session = startRecording({.framesPerSecond = 30,
                                      .keycaps = false,
                                      .microphone = true,
                                      .microphoneDevice = "plimsink.monitor",
                                      .systemSound = true},
        movie, [](CaptureDevices& devices) {
            return devices.microphone && devices.systemSound ? Status{} : fail("Both sounds must open.");
        });
    ASSERT_TRUE(session.has_value()) << session.error().sentence;
    std::this_thread::sleep_for(15s);
    auto outcome = (*session)->finish();
    ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;
    if (player.underflows() > 0)
        GTEST_SKIP() << "the tone player ran dry " << player.underflows() << " times, so the sink itself fell silent";

    // A pure tone obeys x[i+1] = 2 cos(w) x[i] - x[i-1]: what breaks that by more than the
    // codec's noise is a jump (samples lost, repeated or moved), and two samples in a row
    // near zero are a hole (the tone crosses zero between single samples). The recording
    // begins in the middle of the tone, an edge the codec shapes over its first few
    // milliseconds: the tone must sound from the first sample and be whole from the 256th
    // to the last frame.
    const double twoCos = 2 * std::cos(2 * M_PI * toneHz / 48000);
    for (int track : {0, 1}) {
        auto samples = soundTrack(movie, track);
        ASSERT_GT(samples.size(), size_t(14.5 * 48000)) << "track " << track;
        const float peak = std::fabs(std::ranges::max(samples, {}, [](float v) { return std::fabs(v); }));
        for (float& sample : samples)
            sample *= toneLevel / peak; // the stereo track is folded to one channel louder
        auto firstLoud = std::ranges::find_if(samples, [](float v) { return std::fabs(v) > 0.2f; }) - samples.begin();
        EXPECT_LT(firstLoud, 48) << "track " << track;
        size_t holes = 0, jumps = 0, firstBreak = 0;
        for (size_t i = 256; i < samples.size() - 1024; ++i) { // the codec's last frame fades out
            bool hole = std::fabs(samples[i]) < 0.02f && std::fabs(samples[i + 1]) < 0.02f;
            bool jump = std::fabs(samples[i + 1] - twoCos * samples[i] + samples[i - 1]) > 0.03;
            if ((hole || jump) && holes + jumps == 0)
                firstBreak = i;
            holes += hole;
            jumps += jump;
        }
        EXPECT_EQ(holes, 0u) << "track " << track << ", first break at " << double(firstBreak) / 48000 << " s";
        EXPECT_EQ(jumps, 0u) << "track " << track << ", first break at " << double(firstBreak) / 48000 << " s";
    }
}

// The writer keeps the sound on the picture's clock by repeating or leaving out one
// sample a block: the stretch between the two marks lasts the uptime between them, not
// the device's sample count, and the tone has no hole and no jump larger than a sample's
// step (a sample left out moves a 220 Hz tone by at most 0.015 at this level).
TEST_F(SoundTest, ASoundClockRunningFastOrSlowKeepsThePicturesTimeWithoutABreak)
{
    for (double rate : {1.001, 0.999}) {
        SCOPED_TRACE(rate);
        const fs::path movie = folder / ("Drift" + std::to_string(rate) + ".mov");
        auto session = startRecording({.framesPerSecond = 30, .keycaps = false}, movie, [&](CaptureDevices& devices) {
            devices.systemSound = std::make_unique<DriftingSound>(rate);
            return Status{};
        });
        ASSERT_TRUE(session.has_value()) << session.error().sentence;
        std::this_thread::sleep_for(8500ms);
        auto outcome = (*session)->finish();
        ASSERT_TRUE(outcome.isFinished()) << outcome.sentence;

        auto samples = soundTrack(movie, 0);
        // The marks: runs of silence longer than the tone's own crossings of zero, and
        // ended by the tone (the codec's last frame ends in silence).
        std::vector<std::pair<size_t, size_t>> quiet;
        for (size_t i = 0, from = 0; i < samples.size(); ++i) {
            if (std::fabs(samples[i]) < 0.05f)
                continue;
            if (i - from > 200)
                quiet.emplace_back(from, i);
            from = i + 1;
        }
        ASSERT_EQ(quiet.size(), 2u) << "the two marks, and no hole";
        double apart = double(quiet[1].first - quiet[0].first);
        double span = double(DriftingSound::marks[1] - DriftingSound::marks[0]);
        EXPECT_NEAR(apart, span / rate, 24);

        const double twoCos = 2 * std::cos(2 * M_PI * DriftingSound::hz / 48000);
        size_t jumps = 0, firstJump = 0;
        for (size_t i = 2048; i + 1 < samples.size() - 1024; ++i) { // past the codec's onset
            bool nearMark = std::ranges::any_of(quiet, [&](auto run) { return i + 1200 > run.first && i < run.second + 1200; });
            if (!nearMark && std::fabs(samples[i + 1] - twoCos * samples[i] + samples[i - 1]) > 0.03 && !jumps++)
                firstJump = i;
        }
        EXPECT_EQ(jumps, 0u) << "first at " << double(firstJump) / 48000 << " s";
    }
}

} // namespace
} // namespace plim
