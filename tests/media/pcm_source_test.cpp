#include "media/pcm_source.h"
#include "media/sound_reader.h"
#include "media_fixtures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

using namespace plim;
using namespace plim::mediatest;
using plim::testkit::TempDir;

namespace {

// First frame (of interleaved stereo) whose left sample exceeds `threshold` in size.
int64_t firstLoud(const std::vector<float>& samples, float threshold = 0.05f)
{
    for (size_t i = 0; i < samples.size() / 2; ++i)
        if (std::abs(samples[2 * i]) > threshold)
            return static_cast<int64_t>(i);
    return -1;
}

std::vector<float> readAll(PCMSource& source, int64_t from, int64_t count, int64_t block)
{
    std::vector<float> out;
    for (int64_t at = from; at < from + count; at += block) {
        auto part = source.read(at, std::min(block, from + count - at));
        EXPECT_TRUE(part) << part.error().sentence;
        if (!part)
            break;
        out.insert(out.end(), part->begin(), part->end());
    }
    return out;
}

} // namespace

TEST(ArrayPCMSource, ZeroFilledWindows)
{
    ArrayPCMSource source({1, -1, 2, -2, 3, -3}); // three frames
    for (const auto& [from, count, want] : std::vector<std::tuple<int64_t, int64_t, std::vector<float>>>{
             {0, 3, {1, -1, 2, -2, 3, -3}},
             {1, 1, {2, -2}},
             {2, 3, {3, -3, 0, 0, 0, 0}}, // past the end
             {-1, 2, {0, 0, 1, -1}}, // before the start
             {5, 2, {0, 0, 0, 0}},
             {0, 0, {}},
             {1, -4, {}},
         }) {
        auto got = source.read(from, count);
        ASSERT_TRUE(got);
        EXPECT_EQ(*got, want) << from << "+" << count;
    }
}

class SoundTest : public ::testing::Test {
protected:
    // A recording: a mono microphone track with a 440 Hz burst at 0.5 s to 0.7 s and a stereo
    // system-sound track with a 1 kHz burst at 1.2 s to 1.4 s; 2 s long.
    static void SetUpTestSuite()
    {
        writeMovie(recording(),
            {.container = MovieWriter::Container::fragmentedMov,
                .sound = {MovieWriter::microphoneTrack(), MovieWriter::systemSoundTrack()},
                .soundSamples = {toneBurst(96000, 1, 440, 24000, 33600), toneBurst(96000, 2, 1000, 57600, 67200)}});
    }
    static fs::path recording() { return s_dir / "rec.mov"; }
    static inline TempDir s_dir;
};

TEST_F(SoundTest, TracksAreMixedAt48kStereoInPlace)
{
    auto reader = SoundReader::create(recording());
    ASSERT_TRUE(reader) << reader.error().sentence;
    std::vector<float> all;
    for (;;) {
        auto block = (*reader)->read();
        ASSERT_TRUE(block) << block.error().sentence;
        if (block->empty())
            break;
        ASSERT_EQ(block->size() % 2, 0u);
        all.insert(all.end(), block->begin(), block->end());
    }
    EXPECT_NEAR(all.size() / 2.0, 96000, 2048);
    // The two bursts, each within 10 ms (480 frames) of where they were written.
    EXPECT_NEAR(firstLoud(all), 24000, 480);
    std::vector<float> later(all.begin() + 2 * 40000, all.end());
    EXPECT_NEAR(firstLoud(later) + 40000, 57600, 480);
    // The mono track plays on both sides.
    EXPECT_NEAR(all[2 * 24100], all[2 * 24100 + 1], 1e-4);
}

TEST_F(SoundTest, AssetSourceRollsReopensAndPadsWithZeros)
{
    AssetPCMSource source(recording(), "The plim's sound");
    auto burst = readAll(source, 20000, 20000, 1500);
    EXPECT_NEAR(firstLoud(burst) + 20000, 24000, 480);
    EXPECT_EQ(source.opens(), 1);

    // Asking again for frames before the buffer reopens the file at that frame; the same
    // frames come back.
    auto again = source.read(23500, 1000);
    ASSERT_TRUE(again);
    EXPECT_EQ(source.opens(), 2);
    EXPECT_NEAR(firstLoud(*again) + 23500, 24000, 480);
    for (size_t i = 0; i < again->size(); ++i)
        ASSERT_NEAR((*again)[i], burst[2 * 3500 + i], 1e-6) << i;

    // Going on in order does not reopen; far past the end is silence.
    auto second = readAll(source, 24500, 40000, 4000);
    EXPECT_EQ(source.opens(), 2);
    EXPECT_NEAR(firstLoud(std::vector<float>(second.begin() + 2 * 20000, second.end())) + 44500, 57600, 480);
    auto past = source.read(200000, 100);
    ASSERT_TRUE(past);
    EXPECT_EQ(*past, std::vector<float>(200, 0.0f));
}

TEST_F(SoundTest, SourceFailuresNameTheSound)
{
    fs::path notSound = s_dir / "notes.wav";
    testkit::writeText(notSound, "not a sound file");
    fs::path undecodable = s_dir / "undecodable.mov";
    fs::copy_file(recording(), undecodable);
    // Neither the sample entry nor its decoder description names AAC any more.
    patchFourcc(undecodable, "mp4a", "zq8y");
    patchFourcc(undecodable, "esds", "zq8z");
    for (const auto& [path, name, start, end] :
        std::vector<std::tuple<fs::path, std::string, std::string, std::string>>{
            {s_dir / "absent.wav", "The voiceover at 0:03",
                "The voiceover at 0:03 could not be opened (there is no file at ",
                "). Share again; if it keeps happening, the file may be damaged."},
            {notSound, "The plim's sound", "The plim's sound could not be opened (it is not a file Plim can read",
                "). Share again; if it keeps happening, the file may be damaged."},
            {undecodable, "The plim's sound", "The plim's sound has sound Plim cannot decode.",
                "Record it again, or share it as the original plim."},
        }) {
        std::string before = fs::exists(path) ? testkit::readText(path) : "";
        AssetPCMSource source(path, name);
        auto got = source.read(0, 100);
        ASSERT_FALSE(got) << path;
        EXPECT_EQ(got.error().sentence.rfind(start, 0), 0u) << got.error().sentence;
        EXPECT_TRUE(got.error().sentence.ends_with(end)) << got.error().sentence;
        if (fs::exists(path)) {
            EXPECT_EQ(testkit::readText(path), before);
        }
    }
}

TEST_F(SoundTest, ACutShortFileGivesItsSoundThenSaysSo)
{
    fs::path cut = s_dir / "cut.mp4";
    // An export: its index at the front promises 2 s.
    writeMovie(cut, {.sound = {MovieWriter::exportTrack()}, .soundSamples = {toneBurst(96000, 2, 440, 0, 96000)}});
    fs::resize_file(cut, fs::file_size(cut) * 6 / 10);

    AssetPCMSource source(cut, "The plim's sound");
    std::optional<Error> error;
    int64_t loudFrames = 0;
    for (int64_t at = 0; at < 96000 && !error; at += 4800) {
        auto block = source.read(at, 4800);
        if (!block) {
            error = block.error();
            break;
        }
        for (size_t i = 0; i < block->size(); i += 2)
            loudFrames += std::abs((*block)[i]) > 0.01f;
    }
    ASSERT_TRUE(error) << "the cut is reported";
    EXPECT_GT(loudFrames, 20000) << "the sound before the cut was read";
    EXPECT_EQ(error->sentence.rfind("The plim's sound stopped reading part way at ", 0), 0u) << error->sentence;
    EXPECT_TRUE(error->sentence.ends_with(
        "the file was cut short. Nothing was saved. Share again; if it keeps happening, the file may be damaged."))
        << error->sentence;
}
