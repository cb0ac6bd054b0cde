// Voiceovers end to end with a real sound server: a tone played into PulseAudio's null sink,
// whose monitor is the default source, is the narration. plimctl voiceover records it into
// a plim, plimctl share mixes it, and the shared sound is measured with the project's own
// reader; a take cut off by a kill is salvaged at the next start.

#include "app/voiceover_recorder.h"
#include "app/voiceover_salvage.h"
#include "app/voiceover_take.h"
#include "base/json.h"
#include "library/plim_document.h"
#include "library/plim_edits.h"
#include "library/plim_identity.h"
#include "testkit/servers.h"
#include "testkit/test_movies.h"
#include "testkit/testkit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>

#include <thread>

namespace plim {
namespace {

using namespace testkit;
using namespace std::chrono_literals;
using ::testing::HasSubstr;

class VoiceoverTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!pulse.isUp())
            GTEST_SKIP() << "pulseaudio could not start here";
        env = pulse.environment();
        env.push_back("HOME=" + sandbox.home().string());
        library = sandbox.videos() / "Plim";
        const fs::path tone = plims / "narration.wav";
        ASSERT_EQ(runCommand({"sox", "-n", "-r", "48000", "-c", "2", tone.string(), "synth", "60", "sine", "440", "vol",
                      "0.5"}).status, 0);
        // The narration: a steady 440 Hz tone heard by the default source, the null sink's
        // monitor. A short buffer keeps the monitor's stamps close to when the tone sounded.
        narrator = std::make_unique<ChildProcess>(
            std::vector<std::string>{"paplay", "--latency-msec=20", "-d", "plimsink", tone.string()}, env);
        std::this_thread::sleep_for(300ms);
    }

    // A plim whose own sound is a steady 1 kHz tone.
    fs::path plim(const std::string& name, double seconds)
    {
        const fs::path movie = plims / name;
        EXPECT_TRUE(writeTestMovie(movie, TestMovie{.fps = 10, .duration = seconds, .tones = {0}, .toneLength = seconds}));
        return movie;
    }

    CommandResult ctl(std::vector<std::string> args) { return runBuilt("plimctl", std::move(args), env); }

    std::vector<fs::path> voiceoversLeft() const
    {
        std::vector<fs::path> left;
        std::error_code ec;
        for (fs::directory_iterator it(voiceoversFolder(library), ec), end; !ec && it != end; it.increment(ec))
            left.push_back(it->path());
        return left;
    }

    XdgSandbox sandbox;
    PulseServer pulse;
    TempDir plims;
    std::vector<std::string> env;
    fs::path library;
    std::unique_ptr<ChildProcess> narrator;
};

// The take starts at the playhead of the edited plim (here 1 s is trimmed off its start, so
// second 2 of the edit is second 3 of the recording), lands beside the movie, and a share
// plays it from second 2; a second take is never written over the first.
TEST_F(VoiceoverTest, TakeJoinsAtThePlayheadAndIsHeardInTheShare)
{
    const fs::path movie = plim("Talk.mov", 6);
    ASSERT_TRUE(PlimEdits{.plan = {.trimIn = 1.0}}.write(movie, "test"));

    auto recorded = ctl({"voiceover", movie.string(), "--at", "2", "--duration", "2"});
    ASSERT_EQ(recorded.status, 0) << recorded.err;
    const fs::path take = plims / "Talk.voiceover.wav";
    EXPECT_EQ(recorded.out, take.string() + "\n");
    EXPECT_THAT(recorded.err,
        HasSubstr("The voiceover landed at " + take.string()
            + " (2.0 s), and joined the plim's edits at 0:02.0 of the edit (0:03.0 of the recording).\n"));
    EXPECT_TRUE(voiceoversLeft().empty());

    auto edits = PlimEdits::read(movie);
    ASSERT_TRUE(edits && edits->value);
    ASSERT_EQ(edits->value->voiceovers.size(), 1u);
    const auto voice = edits->value->voiceovers[0];
    EXPECT_NEAR(voice.start, 3.0, 1e-6);
    EXPECT_NEAR(voice.duration, 2.0, 0.001);
    EXPECT_EQ(voice.file, "Talk.voiceover.wav");
    EXPECT_EQ(edits->value->plan.trimIn, 1.0); // the rest of the edit is kept
    EXPECT_NEAR(std::atof(probe(take, "a:0", "stream=duration").c_str()), voice.duration, 0.01);

    // Another take at the start gets a name of its own.
    const std::string first = readText(take);
    auto again = ctl({"voiceover", movie.string(), "--duration", "0.5"});
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(again.out, (plims / "Talk.voiceover 2.wav").string() + "\n");
    EXPECT_EQ(readText(take), first);
    narrator.reset();

    TempDir out;
    auto shared = ctl({"share", movie.string(), "--to", out.path().string(), "--quality", "720p"});
    ASSERT_EQ(shared.status, 0) << shared.err;
    const auto pcm = allSound(out / "Talk.mp4");
    ASSERT_GT(pcm.size(), size_t(4.8 * soundSampleRate * 2));
    // The narration is heard from second 2 of the share on, as the take holds it from its
    // first moment: the tone was sounding when the take began. How the recording ducks under
    // it is the share engine's to check.
    const auto narration = allSound(take);
    auto onset = [](const std::vector<float>& sound, double from) {
        for (double t = from; t < from + 2.0; t += 0.005)
            if (toneLevel(sound, 440, t, t + 0.01) > 0.15)
                return t;
        return -1.0;
    };
    const double takeOnset = onset(narration, 0);
    EXPECT_GE(takeOnset, 0);
    EXPECT_LT(takeOnset, 0.02);
    EXPECT_NEAR(onset(pcm, 1.5), 2.0 + takeOnset, 0.015);
    EXPECT_LT(toneLevel(pcm, 440, 0.8, 1.9), 0.02);
}

// A take being recorded by a running process is left alone; killed, it joins its plim at the
// next start with the sentence that says what was kept, its header made whole. A take that
// cannot be read is left exactly as it is, and said. A cancelled take leaves nothing.
TEST_F(VoiceoverTest, KilledTakesAreSalvagedAndUnreadableOnesLeftAsTheyAre)
{
    const fs::path movie = plim("Demo.mov", 5);
    {
        ScopedEnv server("PULSE_SERVER", "unix:" + (pulse.runtimeDir() / "native").string());
        auto recorder = VoiceoverRecorder::start({library, movie, 1.0, std::nullopt});
        ASSERT_TRUE(recorder) << recorder.error().sentence;
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(voiceoversLeft().size(), 2u);
        (*recorder)->cancel();
        EXPECT_TRUE(voiceoversLeft().empty());
        EXPECT_FALSE(fs::exists(sidecarPath(movie, "edits.json")));
    }

    ChildProcess child({builtExecutable("plimctl").string(), "voiceover", movie.string(), "--at", "1.5", "--library",
                           library.string()},
        env, plims / "out.txt", plims / "err.txt");
    fs::path take;
    ASSERT_TRUE(eventually([&] {
        for (const auto& path : voiceoversLeft())
            if (path.extension() == ".wav" && fs::file_size(path) > 44 + 2 * 48000 * 1.5)
                take = path;
        return !take.empty();
    })) << readText(plims / "err.txt");
    EXPECT_TRUE(salvageVoiceoverTakes(library).empty()); // still recording
    EXPECT_EQ(voiceoversLeft().size(), 2u);
    kill(child.pid(), SIGKILL);
    child.wait();
    const auto keptBytes = fs::file_size(take);

    // A take another run left that is not a sound file at all.
    const std::string junkID = "0F8A4C2E-1B7D-4E59-9A36-5C1D2E3F4A5B";
    const fs::path junk = VoiceoverNote::takeIn(voiceoversFolder(library), junkID);
    writeText(junk, "not a sound file");
    VoiceoverNote junkNote{junkID, movie, std::nullopt, 0.5, RecordingMarker::ofThisProcess(false)};
    junkNote.process.bootID = "another-boot";
    ASSERT_TRUE(junkNote.write(voiceoversFolder(library)));
    const std::string junkNoteText = readText(VoiceoverNote::noteIn(voiceoversFolder(library), junkID));

    auto sentences = salvageVoiceoverTakes(library);
    ASSERT_EQ(sentences.size(), 2u) << ::testing::PrintToString(sentences);
    const std::string& unreadable = junkID < take.stem().string() ? sentences[0] : sentences[1];
    const std::string& salvaged = junkID < take.stem().string() ? sentences[1] : sentences[0];
    EXPECT_EQ(unreadable, "Plim was closed while recording a voiceover for \"Demo\", and the take could not be read (it is "
                          "not a voiceover take Plim wrote). It was left as it is in " + voiceoversFolder(library).string()
            + " as " + junkID + ".wav: play it with another program, or delete it.");
    EXPECT_EQ(readText(junk), "not a sound file");
    EXPECT_EQ(readText(VoiceoverNote::noteIn(voiceoversFolder(library), junkID)), junkNoteText);

    auto edits = PlimEdits::read(movie);
    ASSERT_TRUE(edits && edits->value);
    ASSERT_EQ(edits->value->voiceovers.size(), 1u);
    const auto voice = edits->value->voiceovers[0];
    EXPECT_EQ(voice.id, take.stem().string());
    EXPECT_NEAR(voice.start, 1.5, 1e-6);
    EXPECT_NEAR(voice.duration, double(keptBytes - 44) / 2 / 48000, 1e-3);
    char length[16];
    std::snprintf(length, sizeof length, "%.1f s", voice.duration);
    EXPECT_EQ(salvaged, std::string("Plim was closed while recording a voiceover for \"Demo\"; the ") + length
            + " recorded up to then were kept and added to its edits at 1.5 s of the recording, as Demo.voiceover.wav. "
              "Up to a second of narration before the closing was lost.");
    // The side file's header says how long it is, whatever the killed run had last written.
    EXPECT_NEAR(std::atof(probe(plims / voice.file, "a:0", "stream=duration").c_str()), voice.duration, 0.01);
    EXPECT_FALSE(fs::exists(take));

    // The next start says only what still cannot be done.
    EXPECT_EQ(salvageVoiceoverTakes(library), std::vector<std::string>{unreadable});

    // A plim renamed since its take was cut off is found by its identity.
    fs::remove(junk);
    fs::remove(VoiceoverNote::noteIn(voiceoversFolder(library), junkID));
    const fs::path renamed = library / "Renamed.mov";
    ASSERT_TRUE(writeTestMovie(renamed, TestMovie{.duration = 2}));
    auto identity = PlimIdentity::mint(renamed);
    ASSERT_TRUE(identity);
    VoiceoverNote moved{junkID, library / "Before.mov", identity->uuid, 0.25, junkNote.process};
    ASSERT_TRUE(moved.write(voiceoversFolder(library)));
    auto writer = TakeWriter::create(VoiceoverNote::takeIn(voiceoversFolder(library), junkID), 48000);
    ASSERT_TRUE(writer);
    const std::vector<float> half(24000, 0.5f);
    ASSERT_TRUE((*writer)->append(half.data(), int64_t(half.size())));
    writer->reset();
    EXPECT_EQ(salvageVoiceoverTakes(library),
        std::vector<std::string>{"Plim was closed while recording a voiceover for \"Renamed\"; the 0.5 s recorded up "
                                 "to then were kept and added to its edits at 0.2 s of the recording, as "
                                 "Renamed.voiceover.wav. Up to a second of narration before the closing was lost."});
    EXPECT_TRUE(fs::is_empty(voiceoversFolder(library)));
}

// A library folder that fills up while a take is recorded: the command says so as it happens,
// keeps recording to the end, and the take joins with what was written, exiting 2.
TEST_F(VoiceoverTest, AFullDiskKeepsWhatWasWrittenAndSaysSo)
{
    SmallDisk disk("120k"); // some 1.2 s of 16-bit mono at 48 kHz
    if (!disk.isUp())
        GTEST_SKIP() << "a small disk can only be mounted as root";
    const fs::path movie = plim("Full.mov", 5);
    auto recorded = ctl({"voiceover", movie.string(), "--duration", "3", "--library", disk.path().string()});
    EXPECT_EQ(recorded.status, 2) << recorded.err;
    EXPECT_THAT(recorded.err,
        HasSubstr("could not be written (No space left on device); the take keeps what was written before.\n"));
    auto edits = PlimEdits::read(movie);
    ASSERT_TRUE(edits && edits->value);
    ASSERT_EQ(edits->value->voiceovers.size(), 1u);
    EXPECT_GT(edits->value->voiceovers[0].duration, 0.5);
    EXPECT_LT(edits->value->voiceovers[0].duration, 1.3);
    EXPECT_NEAR(std::atof(probe(plims / "Full.voiceover.wav", "a:0", "stream=duration").c_str()),
        edits->value->voiceovers[0].duration, 0.01);
    EXPECT_TRUE(fs::is_empty(voiceoversFolder(disk.path())));
}

} // namespace
} // namespace plim
