#include "media/media.h"
#include "plan/plan.h"
#include "testkit/test_movies.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

using namespace plim;
using Piece = SoundMix::Piece;
using Stretch = SoundMix::Stretch;
using Voice = SoundMix::Voice;
using VoiceInput = VoiceoverSlot;

namespace {

CutRange cut(double start, double end) { return CutRange{"7A4E0C11-0000-4000-8000-000000000001", start, end, {}}; }

// Mixes the whole plan in blocks of `block` frames; returns interleaved stereo.
std::vector<float> mixAll(SoundMixer& mixer, int64_t block)
{
    std::vector<float> out;
    int64_t expectStart = 0;
    for (;;) {
        auto next = mixer.next(block);
        EXPECT_TRUE(next) << next.error().sentence;
        if (!next || !*next)
            break;
        EXPECT_EQ((*next)->start, expectStart);
        EXPECT_LE((*next)->samples.size(), 2 * static_cast<size_t>(block));
        expectStart += static_cast<int64_t>((*next)->samples.size() / 2);
        out.insert(out.end(), (*next)->samples.begin(), (*next)->samples.end());
    }
    return out;
}

std::shared_ptr<PCMSource> constant(float value, int64_t frames)
{
    return std::make_shared<ArrayPCMSource>(std::vector<float>(2 * static_cast<size_t>(frames), value));
}

} // namespace

TEST(ShareAudioPlan, PiecesStretchesVoicesAndLength)
{
    // {name, edit, recording seconds, voices, whether the plim's sound plays, the mix}
    using Case = std::tuple<const char*, EditPlan, double, std::vector<VoiceInput>, bool, SoundMix>;
    for (const auto& [name, edit, raw, voices, withSound, want] : std::vector<Case>{
             {"untouched", {}, 2, {}, true, {{{0, 0, 96000}}, {}, {}, 96000, 48000}},
             {"trimmed", EditPlan{.trimIn = 0.5, .trimOut = 1.5}, 2, {}, true,
                 {{{24000, 0, 48000}}, {}, {}, 48000, 48000}},
             {"a cut", EditPlan{.cuts = {cut(0.5, 1.0)}}, 2, {}, true,
                 {{{0, 0, 24000}, {48000, 24000, 48000}}, {}, {}, 72000, 48000}},
             {"sped up four times", EditPlan{.skips = {{{1, 3}, false, 4.0}}}, 4, {}, true,
                 {{{0, 0, 48000}, {144000, 72000, 48000}}, {{48000, 96000, 48000, 24000, 4.0}}, {}, 120000, 48000}},
             {"a kept skip plays at speed 1", EditPlan{.skips = {{{1, 3}, true, 4.0}}}, 4, {}, true,
                 {{{0, 0, 192000}}, {}, {}, 192000, 48000}},
             {"a cut inside a sped-up stretch", EditPlan{.skips = {{{1, 3}, false, 2.0}}, .cuts = {cut(1.5, 2.0)}}, 4,
                 {}, true,
                 {{{0, 0, 48000}, {144000, 84000, 48000}},
                     {{48000, 24000, 48000, 12000, 2.0}, {96000, 48000, 60000, 24000, 2.0}}, {}, 132000, 48000}},
             {"voices without the plim's sound", EditPlan{.cuts = {cut(0.5, 1.0)}}, 2,
                 {{0.5, 1.0, 0.2}, {1.25, 0.25, 0}}, false,
                 {{}, {}, {{0, 24000, 48000, 0.2f}, {1, 60000, 12000, 0.0f}}, 72000, 48000}},
         })
        EXPECT_EQ(planShareAudio(edit, raw, voices, withSound, 48000), want) << name;
}

TEST(ShareAudioPlan, TouchesAVoiceWithinItsRamp)
{
    SoundMix plan = planShareAudio({}, 4, {{0.5, 1.0, 0.2}}, true, 48000);
    ASSERT_EQ(plan.rampFrames(), 7200);
    // The voice is frames 24000 ..< 72000; the ramp reaches 7200 frames either side.
    for (auto [from, to, touches] : std::vector<std::tuple<int64_t, int64_t, bool>>{{0, 16800, false}, {0, 16801, true},
             {30000, 31000, true}, {79199, 90000, true}, {79200, 90000, false}, {100000, 120000, false}})
        EXPECT_EQ(plan.touchesAVoice(from, to), touches) << from << " ..< " << to;
    EXPECT_EQ(SoundMix{.sampleRate = 1}.rampFrames(), 1);
}

// micUnder 0.2: the recording sits at 0.2 inside the voice and rises linearly to 1 over
// 0.15 s (7,200 frames) on both sides; where voices overlap the lower gain wins.
TEST(SoundMixer, DucksUnderVoicesWithLinearRamps)
{
    std::vector<VoiceInput> voices = {{1.0, 1.0, 0.2}, {2.5, 1.0, 0.5}, {3.0, 1.0, 0.1}};
    SoundMix plan = planShareAudio({}, 5, voices, true, 48000);
    // The voices are empty: only the recording's gain is heard.
    SoundMixer mixer(plan, constant(0.5f, 5 * 48000), {{0, constant(0, 0)}, {1, constant(0, 0)}, {2, constant(0, 0)}});
    auto mixed = mixAll(mixer, 1000);
    ASSERT_EQ(mixed.size(), 2u * 5 * 48000);
    auto gainAt = [&](int64_t f) { return mixed[static_cast<size_t>(2 * f)] / 0.5; };
    for (auto [frame, gain] : std::vector<std::pair<int64_t, double>>{
             {10000, 1.0}, {48000 - 7200, 1.0}, // the ramp's outer end
             {48000 - 3600, 0.2 + 0.8 * 0.5}, // half way up
             {48000 - 1, 0.2 + 0.8 / 7200}, {48000, 0.2}, {70000, 0.2}, {95999, 0.2},
             {96000 + 3599, 0.2 + 0.8 * 0.5}, // after the voice: the distance to its last frame
             {96000 + 7199, 1.0}, {120000 - 2400, 0.5 + 0.5 * (2400.0 / 7200)}, // rising into the second voice
             {3 * 48000 - 2400, 0.1 + 0.9 * (2400.0 / 7200)}, // below the second voice's 0.5: the lower wins
             {3 * 48000 + 100, 0.1}, // both voices: the lower gain
         }) {
        EXPECT_NEAR(gainAt(frame), gain, 1e-4) << "frame " << frame;
        EXPECT_EQ(mixed[static_cast<size_t>(2 * frame)], mixed[static_cast<size_t>(2 * frame + 1)]);
    }
}

TEST(SoundMixer, ClipsTheSumInsteadOfWrapping)
{
    SoundMix plan = planShareAudio({}, 1, {{0.0, 1.0, 1.0}}, true, 48000);
    std::vector<float> loud(2 * 48000);
    for (size_t i = 0; i < loud.size(); ++i)
        loud[i] = (i / 2) % 2 ? -0.8f : 0.8f;
    SoundMixer mixer(plan, std::make_shared<ArrayPCMSource>(loud),
        {{0, std::make_shared<ArrayPCMSource>(loud)}});
    auto mixed = mixAll(mixer, 4096);
    ASSERT_EQ(mixed.size(), loud.size());
    EXPECT_EQ(mixed[0], 1.0f);
    EXPECT_EQ(mixed[2], -1.0f);
    EXPECT_EQ(*std::max_element(mixed.begin(), mixed.end()), 1.0f);
    EXPECT_EQ(*std::min_element(mixed.begin(), mixed.end()), -1.0f);
    EXPECT_FALSE(mixer.next(100).value().has_value()) << "nothing after the last frame";
}

TEST(SoundMixer, WithoutThePlimsSoundOnlyVoicesPlay)
{
    SoundMix plan = planShareAudio({}, 1, {{0.5, 0.25, 0.0}}, false, 48000);
    SoundMixer mixer(plan, constant(0.5f, 48000), {{0, constant(0.25f, 12000)}});
    auto mixed = mixAll(mixer, 5000);
    ASSERT_EQ(mixed.size(), 2u * 48000);
    EXPECT_EQ(mixed[2 * 1000], 0.0f);
    EXPECT_EQ(mixed[2 * 24000], 0.25f);
    EXPECT_EQ(mixed[2 * 35999 + 1], 0.25f);
    EXPECT_EQ(mixed[2 * 36000], 0.0f);
}

namespace {

constexpr int rate = 48000;

// The test recording (6 s) holds 1 kHz bursts at 2.0 s (0.2 s long), 4.0 s (0.4 s, inside the
// sped-up stretch) and 5.5 s (0.2 s); in the output they start at:
const double burstStarts[] = {
    1.0,  // after the cut 0.5 .. 1.5
    2.25, // 3.0 .. 5.0 at four times: 2.0 + 1.0 / 4
    3.0,  // after the stretch: 2.5 + 0.5
};

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

TEST(SoundMixerMovie, BurstsLandWhereTheEditPutsThemAtTheirPitch)
{
    testkit::TempDir dir;
    fs::path movie = dir / "tones.mov";
    ASSERT_TRUE(testkit::writeTestMovie(movie, {.width = 160, .height = 120, .fps = 10, .duration = 6,
        .tones = {2.0, 4.0, 4.2, 5.5}, .toneLength = 0.2}));

    EditPlan edit{.skips = {{{3.0, 5.0}, false, 4.0}},
        .cuts = {CutRange{"7A4E0C11-0000-4000-8000-000000000001", 0.5, 1.5, {}}}};
    SoundMix plan = planShareAudio(edit, 6.0, {}, true, rate);
    ASSERT_EQ(plan.totalFrames, 7 * rate / 2); // 6 s less 1 s cut, less 1.5 s saved by the speed-up
    ASSERT_EQ(plan.stretches.size(), 1u);

    SoundMixer mixer(plan, std::make_shared<AssetPCMSource>(movie, "The plim's sound"), {});
    std::vector<float> mixed = mixAll(mixer, 4096);
    ASSERT_EQ(mixed.size(), 7u * rate);

    auto found = testkit::soundOnsets(mixed, 0.1f, 0.05);
    ASSERT_EQ(found.size(), std::size(burstStarts)) << "one onset per burst";
    for (size_t i = 0; i < found.size(); ++i)
        EXPECT_NEAR(found[i], burstStarts[i], 0.010) << "burst " << i;
    // The sped-up burst lasts a quarter as long and keeps its 1 kHz pitch (a plain speed-up
    // would sound at 4 kHz).
    int64_t mid = std::llround((burstStarts[1] + 0.025) * rate);
    EXPECT_NEAR(frequency(mixed, mid, mid + rate / 20), 1000, 30);
    const int64_t first = std::llround((found[0] + 0.01) * rate);
    EXPECT_NEAR(frequency(mixed, first, first + rate / 10), 1000, 30);
    // Sound between bursts stays quiet: the stretch ends inside its 0.5 s of output.
    int64_t afterStretch = std::llround(2.45 * rate);
    for (int64_t i = afterStretch; i < afterStretch + 1000; ++i)
        ASSERT_LT(std::abs(mixed[2 * i]), 0.05f) << i;
}
