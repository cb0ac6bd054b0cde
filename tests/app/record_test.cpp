// plimctl record end to end on a real X server (Xvfb) and sound server (PulseAudio with a
// null sink), driven by xdotool, checked with ffprobe and the plim's own side files.

#include "base/files.h"
#include "base/json.h"
#include "capture/capture.h"
#include "library/plim_identity.h"
#include "testkit/servers.h"
#include "testkit/test_window.h"
#include "testkit/testkit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/statvfs.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

namespace plim {
namespace {

using namespace testkit;
using namespace std::chrono_literals;
using ::testing::HasSubstr;

class RecordTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!x.isUp() || !pulse.isUp())
            GTEST_SKIP() << "Xvfb or pulseaudio could not start here";
        env = pulse.environment();
        env.push_back("DISPLAY=" + x.display());
        env.push_back("DBUS_SESSION_BUS_ADDRESS=disabled:");
        library = sandbox.home() / "Videos" / "Plim";
    }

    std::unique_ptr<ChildProcess> record(std::vector<std::string> extra, const fs::path& folder)
    {
        std::vector<std::string> argv{builtExecutable("plimctl").string(), "record", "--library", folder.string()};
        argv.insert(argv.end(), extra.begin(), extra.end());
        return std::make_unique<ChildProcess>(argv, env, sandbox.home() / "out.txt", sandbox.home() / "err.txt");
    }

    XdgSandbox sandbox;
    XvfbServer x;
    PulseServer pulse;
    std::vector<std::string> env;
    fs::path library;
};

// One recording covers the pointer, clicks, shortcuts, plain typing, both sound tracks, a
// 2 s pause, the movie's shape and the identity. Where played sound lands in the tracks is
// the capture session's to check (sync_test.cpp).
TEST_F(RecordTest, RecordsPointerKeysSoundAndLeavesPausesOut)
{
    auto started = std::chrono::steady_clock::now();
    auto child = record({"--duration", "4", "--mic", "--system-sound", "--camera-device", "/dev/plim-no-camera", "--fps",
                            "60", "--area", "0,0,640,360"},
        library);
    // The picture rolls once the sound flows, which a cold sound server may take a while to do.
    eventually([&] { return readText(sandbox.home() / "err.txt").find("Recording ") != std::string::npos; }, 10);
    ASSERT_FALSE(onlyMovie(library).empty()) << readText(sandbox.home() / "err.txt");
    std::this_thread::sleep_for(300ms);
    xdotool({"mousemove", "200", "150", "click", "1"}, env);
    xdotool({"mousemove", "400", "300", "click", "3"}, env);
    xdotool({"key", "super+s", "ctrl+shift+z", "h", "i", "shift+x", "Left", "Right"}, env);
    kill(child->pid(), SIGUSR1); // pause
    std::this_thread::sleep_for(2000ms);
    xdotool({"mousemove", "600", "500", "click", "1"}, env); // while paused: left out
    xdotool({"key", "super+p"}, env);
    kill(child->pid(), SIGUSR1); // resume
    int status = child->wait();
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::string err = readText(sandbox.home() / "err.txt");
    ASSERT_EQ(status, 2) << err; // kept, without the camera asked for

    fs::path movie = onlyMovie(library);
    ASSERT_FALSE(movie.empty()) << err;
    EXPECT_NE(readText(sandbox.home() / "out.txt").find(movie.string()), std::string::npos);

    // The movie: the area's size, 60 frames a second, 4 s although more than 6 s passed.
    EXPECT_EQ(probe(movie, "v:0", "stream=width,height"), "640,360");
    EXPECT_GT(wall, 6.0);
    auto seconds = [&](const char* stream) { return std::atof(probe(movie, stream, "stream=duration").c_str()); };
    double video = seconds("v:0");
    EXPECT_NEAR(video, 4.0, 0.25);
    int packets = std::atoi(probe(movie, "v:0", "stream=nb_read_packets", {"-count_packets"}).c_str());
    EXPECT_GT(packets, int(video * 60 * 0.5)) << "too many frames dropped: " << err;
    EXPECT_LE(packets, int(video * 60) + 2);
    // The microphone (mono) and the computer's sound (stereo) span the movie; the camera
    // that cannot open is named on standard error and left out.
    EXPECT_EQ(probe(movie, "a", "stream=channels"), "1\n2");
    EXPECT_NEAR(seconds("a:0"), video, 0.25);
    EXPECT_NEAR(seconds("a:1"), video, 0.25);
    EXPECT_THAT(err,
        HasSubstr("The camera at /dev/plim-no-camera could not be opened, so the plim rolls without the camera.\n"));
    EXPECT_THAT(err, HasSubstr("Something asked for was not recorded; the lines above say what."));
    EXPECT_FALSE(fs::exists(sidecarPath(movie, "camera.mov")));

    // The cursor track: about 60 samples a second over the movie's length, the clicks where
    // xdotool clicked, nothing from the pause.
    auto cursor = Json::parse(readText(sidecarPath(movie, "cursor.json")));
    int64_t offset = cursor.value("videoStartOffsetMS", int64_t(-1));
    EXPECT_GE(offset, 0);
    EXPECT_LT(offset, 500);
    const auto& samples = cursor["samples"];
    double trackSeconds = (samples.back()["t"].get<double>() - offset) / 1000.0;
    EXPECT_NEAR(trackSeconds, video, 0.2);
    EXPECT_NEAR(double(samples.size()) / trackSeconds, 60.0, 6.0);
    std::vector<std::pair<double, double>> clicks;
    for (const auto& click : cursor["clicks"])
        clicks.emplace_back(click["x"].get<double>(), click["y"].get<double>());
    EXPECT_EQ(clicks, (std::vector<std::pair<double, double>>{{200, 150}, {400, 300}}));

    // The keystroke track: the shortcuts and arrows, never the plain letters.
    auto keys = Json::parse(readText(sidecarPath(movie, "keys.json")));
    std::vector<std::string> captions;
    for (const auto& event : keys["events"])
        captions.push_back(event["caption"].get<std::string>());
    EXPECT_EQ(captions, (std::vector<std::string>{"⌘S", "⌃⇧Z", "←", "→"}));
    EXPECT_TRUE(PlimIdentity::read(baseName(movie), library).has_value());
}

// Options that cannot be honoured are refused before anything is recorded; inputs that
// cannot open are said on standard error, and the exit status says the plim lacks them.
TEST_F(RecordTest, RefusalsAndMissingInputsAreSaidOnStandardError)
{
    auto run = [&](std::vector<std::string> extra, std::vector<std::string> more = {}) {
        extra.insert(extra.begin(), {"record", "--library", library.string()});
        more.insert(more.begin(), env.begin(), env.end());
        return runBuilt("plimctl", extra, more);
    };
    for (const auto& [args, sentence] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"--fps", "abc"}, "plimctl record: --fps takes 30 or 60, not \"abc\". Nothing was recorded.\n"},
             {{"--fps", "1000"}, "plimctl record: --fps takes 30 or 60, not \"1000\". Nothing was recorded.\n"},
             {{"--duration", "inf"},
                 "plimctl record: --duration takes a number of seconds above 0, not \"inf\". Nothing was recorded.\n"},
             {{"--x-display", ":59"}, "There is no X display to record: the X server of display :59 does not answer. "
                                      "Start it, or record a display whose X server is running.\n"}}) {
        auto refused = run(args);
        EXPECT_EQ(refused.status, 1) << args[0];
        EXPECT_EQ(refused.err, sentence);
    }
    EXPECT_TRUE(onlyMovie(library).empty());

    // An area running off the screen says the size it records; without a sound server both
    // sound sentences go to standard error, the picture is recorded and the status is 2.
    auto silent = run({"--area", "1000,600,500,500", "--duration", "0.5", "--mic", "--system-sound"},
        {"PULSE_SERVER=unix:" + (sandbox.home() / "no-such-server").string()});
    EXPECT_EQ(silent.status, 2) << silent.err;
    for (const char* sentence :
        {"Recording area 1000,600 280x120 (the part of the asked area that is on the screen) into",
            "The sound server did not answer, so the microphone is not recorded. The recording rolls without it.\n",
            "The sound server did not answer, so the computer's sound is not recorded. The recording rolls without it.\n",
            "Something asked for was not recorded; the lines above say what.\n"})
        EXPECT_THAT(silent.err, HasSubstr(sentence));
}

TEST_F(RecordTest, AKilledRecordingPlaysToWithinTwoSecondsOfTheKill)
{
    auto child = record({"--area", "0,0,640,360"}, library);
    eventually([&] { return !onlyMovie(library).empty(); }, 10);
    fs::path movie = onlyMovie(library);
    ASSERT_FALSE(movie.empty()) << readText(sandbox.home() / "err.txt");
    auto rolling = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(300ms);
    xdotool({"key", "super+k"}, env);
    std::this_thread::sleep_for(6200ms);
    kill(child->pid(), SIGKILL);
    double killedAt = std::chrono::duration<double>(std::chrono::steady_clock::now() - rolling).count() + 0.5;
    EXPECT_EQ(child->wait(), 128 + SIGKILL);
    auto decoded = runCommand({"ffmpeg", "-v", "error", "-i", movie.string(), "-f", "null", "-"});
    double duration = std::atof(probe(movie, "", "format=duration").c_str());
    EXPECT_GT(duration, killedAt - 2.5) << decoded.err;
    EXPECT_LT(duration, killedAt + 1.0);
    // The cursor track kept in its journal reaches within five seconds of the kill.
    auto track = CursorTrack::read(movie);
    ASSERT_TRUE(track.has_value()) << track.error().sentence;
    ASSERT_FALSE(track->value.samples.empty());
    EXPECT_GT(double(track->value.samples.back().t) / 1000.0, killedAt - 5.5);
    // So does the keystroke track, written every few seconds.
    auto keys = KeystrokeTrack::read(movie);
    ASSERT_TRUE(keys.has_value());
    ASSERT_EQ(keys->value.events.size(), 1u);
    EXPECT_EQ(keys->value.events[0].caption, "⌘K");

    // The next recording's start makes it a whole plim and says so; its own marker goes
    // when it finishes.
    const fs::path marker = RecordingMarker::fileBeside(movie);
    ASSERT_TRUE(fs::exists(marker));
    const std::string moviePicture = probe(movie, "", "format=duration");
    auto next = record({"--area", "0,0,640,360", "--duration", "1", "--no-keys"}, library);
    EXPECT_EQ(next->wait(), 0);
    const std::string said = readText(sandbox.home() / "err.txt");
    EXPECT_THAT(said, HasSubstr("Plim was closed while recording \"" + baseName(movie) + "\"; the 0:0"));
    EXPECT_THAT(said,
        HasSubstr("were saved. Lost with the closing were up to 2 seconds of picture and sound, up to 1 second of the "
                  "pointer and up to 4 seconds of the keys pressed.\n"));
    EXPECT_FALSE(fs::exists(marker));
    EXPECT_FALSE(fs::exists(CursorTrack::journalBeside(movie)));
    EXPECT_EQ(probe(movie, "", "format=duration"), moviePicture);
    auto kept = CursorTrack::read(movie);
    ASSERT_TRUE(kept.has_value());
    EXPECT_TRUE(kept->notices.empty());
    EXPECT_EQ(kept->value.samples.size(), track->value.samples.size());
    EXPECT_TRUE(PlimIdentity::read(baseName(movie), library).has_value());
    for (const auto& entry : fs::directory_iterator(library))
        EXPECT_FALSE(RecordingMarker::movieOf(entry.path())) << entry.path();
}

TEST_F(RecordTest, AFullDiskStopsWithItsHeadlineKeepsWhatWasWrittenAndNamesTheFilesLost)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "mounting a small tmpfs needs root";
    SmallDisk disk("1m");
    ASSERT_TRUE(disk.isUp()) << std::strerror(errno);
    fs::path folder = disk / "Plim";
    fs::create_directories(folder);

    // A disk with almost nothing left refuses before the first frame.
    {
        std::ofstream filler(disk / "filler", std::ios::binary);
        std::string block(4096, 'x');
        struct statvfs space{};
        while (statvfs(disk.path().c_str(), &space) == 0 && space.f_bavail * space.f_frsize > 128 * 1024) {
            filler.write(block.data(), std::streamsize(block.size()));
            filler.flush();
        }
    }
    auto refused = record({"--area", "0,0,320,240", "--duration", "2"}, folder);
    EXPECT_EQ(refused->wait(), 1);
    EXPECT_THAT(readText(sandbox.home() / "err.txt"),
        HasSubstr("The disk was full before the first frame could be written. Free at least 2 GB and roll again."));
    EXPECT_TRUE(onlyMovie(folder).empty());

    // With room for a few seconds of a still picture, fresh noise fills it while rolling.
    fs::resize_file(disk / "filler", 300 * 1024);
    TestWindow window(x.display(), 0, 0, 1280, 720, 0x204080);
    auto child = record({"--duration", "30"}, folder);
    std::this_thread::sleep_for(3500ms);
    window.setNoise(true);
    int status = child->wait();
    std::string err = readText(sandbox.home() / "err.txt");
    EXPECT_EQ(status, 1) << err;
    EXPECT_THAT(err, HasSubstr("The disk filled while rolling at 0:0"));
    fs::path movie = onlyMovie(folder);
    ASSERT_FALSE(movie.empty()) << err;
    // The files written beside it as it finishes find no room either; each is named on
    // standard error with what is kept.
    for (const std::string& sentence :
        {"Could not write " + sidecarPath(movie, "cursor.json").string() + " (No space left on device). The movie is "
         "kept, and its pointer, clicks and marks as far as their journal reached; free some disk space before the next "
         "recording.\n",
            "Could not write " + sidecarPath(movie, "keys.json").string() + " (No space left on device). The movie is kept, "
            "but the keys pressed in this plim are lost; free some disk space before the next recording.\n",
            std::string(" The movie is kept without its identity file.\n")})
        EXPECT_THAT(err, HasSubstr(sentence));
    EXPECT_FALSE(fs::exists(sidecarPath(movie, "cursor.json")));
    EXPECT_FALSE(fs::exists(sidecarPath(movie, "keys.json")));
    EXPECT_GT(std::atof(probe(movie, "", "format=duration").c_str()), 1.5);
}

} // namespace
} // namespace plim
