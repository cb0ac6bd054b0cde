// The recording's sound through a real movie, a plan with a cut and a sped-up stretch, and
// the mixer: tone bursts land where the edit puts them, at their own pitch.

#include "media/movie_writer.h"
#include "media/pcm_source.h"
#include "stage/share_audio_mixer.h"
#include "stage/share_audio_plan.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace plim;
using plim::testkit::TempDir;

namespace {

constexpr int rate = 48000;

// Raw sound of the test recording (6 s): 1 kHz bursts at 2.0 s (0.2 s long), at 4.0 s
// (0.4 s, inside the sped-up stretch) and at 5.5 s (0.2 s).
struct Burst {
    double rawStart, rawLength, outStart;
};
const Burst bursts[] = {
    {2.0, 0.2, 1.0},  // after the cut 0.5 .. 1.5
    {4.0, 0.4, 2.25}, // 3.0 .. 5.0 at four times: 2.0 + 1.0 / 4
    {5.5, 0.2, 3.0},  // after the stretch: 2.5 + 0.5
};

void writeRecording(const fs::path& path)
{
    std::vector<float> sound(2 * 6 * rate, 0.0f);
    for (const auto& b : bursts)
        for (int64_t i = std::llround(b.rawStart * rate); i < std::llround((b.rawStart + b.rawLength) * rate); ++i)
            sound[2 * i] = sound[2 * i + 1] = 0.5f * static_cast<float>(std::sin(2 * M_PI * 1000.0 * i / rate));
    MovieWriter::Settings s;
    s.path = path;
    s.width = 160;
    s.height = 120;
    s.frameRate = 10;
    s.sound = {MovieWriter::exportTrack()};
    auto writer = MovieWriter::create(s);
    ASSERT_TRUE(writer) << writer.error().sentence;
    Image grey = Image::allocate(160, 120);
    for (int n = 0; n < 60; ++n) {
        ASSERT_TRUE((*writer)->appendVideo(grey, n / 10.0));
        ASSERT_TRUE((*writer)->appendAudio(0, sound.data() + 2 * n * 4800, 4800, n * 4800LL));
    }
    ASSERT_TRUE((*writer)->finish());
}

// Onsets of loud stretches: the frames where a 1 ms RMS window first rises above
// `threshold` after at least 50 ms of quiet.
std::vector<int64_t> onsets(const std::vector<float>& stereo, double threshold = 0.1)
{
    std::vector<int64_t> out;
    const int64_t window = rate / 1000;
    int64_t quiet = 0;
    for (int64_t at = 0; at + window <= static_cast<int64_t>(stereo.size() / 2); at += window) {
        double sum = 0;
        for (int64_t i = at; i < at + window; ++i)
            sum += stereo[2 * i] * stereo[2 * i];
        bool loud = std::sqrt(sum / window) * std::sqrt(2.0) > threshold;
        if (loud && quiet >= 50 * window) {
            // Refine to the first sample above the threshold in this window.
            int64_t first = at;
            while (first < at + window && std::abs(stereo[2 * first]) < threshold)
                ++first;
            out.push_back(first);
        }
        quiet = loud ? 0 : quiet + window;
    }
    return out;
}

// The dominant frequency between two frames, from zero crossings of the left channel.
double frequency(const std::vector<float>& stereo, int64_t from, int64_t to)
{
    int crossings = 0;
    for (int64_t i = from + 1; i < to; ++i)
        if ((stereo[2 * (i - 1)] < 0) != (stereo[2 * i] < 0))
            ++crossings;
    return crossings / 2.0 / (double(to - from) / rate);
}

} // namespace

TEST(ShareAudioMixerMovie, BurstsLandWhereTheEditPutsThemAtTheirPitch)
{
    TempDir dir;
    fs::path movie = dir / "tones.mp4";
    writeRecording(movie);

    EditPlan edit{.skips = {{{3.0, 5.0}, false, 4.0}},
        .cuts = {CutRange{"7A4E0C11-0000-4000-8000-000000000001", 0.5, 1.5, {}}}};
    ShareAudioPlan plan = ShareAudioPlan::plan(edit, 6.0, {}, true, rate);
    ASSERT_EQ(plan.totalFrames, 7 * rate / 2); // 6 s less 1 s cut, less 1.5 s saved by the speed-up
    ASSERT_EQ(plan.stretches.size(), 1u);

    ShareAudioMixer mixer(plan, std::make_shared<AssetPCMSource>(movie, "The plim's sound"), {});
    std::vector<float> mixed;
    for (;;) {
        auto block = mixer.next(4096);
        ASSERT_TRUE(block) << block.error().sentence;
        if (!*block)
            break;
        mixed.insert(mixed.end(), (*block)->samples.begin(), (*block)->samples.end());
    }
    ASSERT_EQ(mixed.size(), 7u * rate);

    auto found = onsets(mixed);
    ASSERT_EQ(found.size(), std::size(bursts)) << "one onset per burst";
    for (size_t i = 0; i < found.size(); ++i) {
        double at = double(found[i]) / rate;
        EXPECT_NEAR(at, bursts[i].outStart, 0.010) << "burst " << i;
        RecordProperty("onset" + std::to_string(i) + "ErrorMs", std::to_string((at - bursts[i].outStart) * 1000));
    }
    // The sped-up burst lasts a quarter as long and keeps its 1 kHz pitch (a plain speed-up
    // would sound at 4 kHz).
    int64_t mid = std::llround((bursts[1].outStart + 0.025) * rate);
    EXPECT_NEAR(frequency(mixed, mid, mid + rate / 20), 1000, 30);
    EXPECT_NEAR(frequency(mixed, found[0] + 480, found[0] + 480 + rate / 10), 1000, 30);
    // Sound between bursts stays quiet: the stretch ends inside its 0.5 s of output.
    int64_t afterStretch = std::llround(2.45 * rate);
    for (int64_t i = afterStretch; i < afterStretch + 1000; ++i)
        ASSERT_LT(std::abs(mixed[2 * i]), 0.05f) << i;
}
