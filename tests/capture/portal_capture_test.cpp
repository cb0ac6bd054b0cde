// The portal backend against a real desktop portal: GNOME's (mutter headless with a virtual
// monitor, xdg-desktop-portal-gnome, PipeWire), with a full-screen terminal printing the time.
// plimctl records it through the portal with no dialog (the grant seeded in the permission
// store, as an earlier choice would leave it), then again with the restore token the first
// recording kept; the movies, the pointer's track and the failure sentences are checked.
// A share the desktop ends mid-recording keeps what was recorded; a share the dialog refuses
// (a backend of the test's own answers it, the portal itself real) records nothing.

#include "base/json.h"
#include "capture/cursor_track.h"
#include "testkit/gnome_session.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <signal.h>

#include <array>
#include <chrono>
#include <map>
#include <tuple>
#include <cstdlib>
#include <sstream>
#include <thread>

namespace plim {
namespace {

using namespace testkit;
using namespace std::chrono_literals;

constexpr int castWidth = 1280, castHeight = 800;
// The terminal's background, which fills the screen right of the printed times.
constexpr std::array<int, 3> background{0xc0, 0x30, 0x20};

fs::path onlyMovie(const fs::path& folder)
{
    std::vector<fs::path> movies;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(folder, ec))
        if (entry.path().extension() == ".mov")
            movies.push_back(entry.path());
    return movies.size() == 1 ? movies[0] : fs::path();
}

std::array<double, 3> castColour(const fs::path& movie, double seconds, int x0, int y0, int x1, int y1)
{
    auto rgb = runCommand({"ffmpeg", "-v", "error", "-ss", std::to_string(seconds), "-i", movie.string(), "-frames:v",
        "1", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"}).out;
    std::array<double, 3> sum{-1, -1, -1};
    if (rgb.size() != size_t(castWidth) * castHeight * 3)
        return sum;
    sum = {0, 0, 0};
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x)
            for (int c = 0; c < 3; ++c)
                sum[c] += uint8_t(rgb[(size_t(y) * castWidth + x) * 3 + c]);
    for (double& s : sum)
        s /= double(x1 - x0) * (y1 - y0);
    return sum;
}

class PortalCapture : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!gnome.isUp())
            GTEST_SKIP() << gnome.trouble();
        env = gnome.environment();
        fs::create_directories(sandbox.home() / ".config/plim");
        gnome.handOver(sandbox.home());
    }

    // plimctl record as the desktop's user with `extra`, stopped by timeout(1) should the
    // desktop ever wait for a dialog. Standard error goes to err.txt.
    std::unique_ptr<ChildProcess> startRecording(const fs::path& library, std::vector<std::string> extra)
    {
        gnome.handOver(library);
        std::vector<std::string> argv{"timeout", "60", builtExecutable("plimctl").string(), "record", "--library",
            library.string(), "--fps", "30", "--no-keys"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        return std::make_unique<ChildProcess>(gnome.asUser(argv), env, "/dev/null", errFile());
    }
    CommandResult record(const fs::path& library, std::vector<std::string> extra)
    {
        CommandResult result;
        result.status = startRecording(library, std::move(extra))->wait();
        result.err = readText(errFile());
        return result;
    }
    fs::path errFile() const { return scratch / "err.txt"; }

    std::string keptToken() const
    {
        auto settings = Json::parse(readText(sandbox.home() / ".config/plim/settings.json"), nullptr, false);
        return settings.is_object() && settings.contains("screenCastRestoreToken")
            ? settings["screenCastRestoreToken"].get<std::string>()
            : std::string();
    }

    XdgSandbox sandbox;
    TempDir scratch;
    GnomeSession gnome;
    std::vector<std::string> env;
};

TEST_F(PortalCapture, RecordsTheScreenAndPointerThenReusesTheChoice)
{
    gnome.startClient({"foot", "--fullscreen", "-o", "colors.background=c03020", "sh", "-c",
        "while true; do date +%T.%N; sleep 0.02; done"});
    const std::string grant = gnome.grantScreenCast();
    ASSERT_FALSE(grant.empty());
    writeText(sandbox.home() / ".config/plim/settings.json", "{\"screenCastRestoreToken\": \"" + grant + "\"}\n");
    gnome.handOver(sandbox.home());
    ASSERT_TRUE(gnome.movePointer(300, 200));

    // The recording runs until the pointer's move shows in its journal (a loaded machine may
    // take seconds to paint), then a second more, and is stopped as Ctrl-C would.
    TempDir library;
    auto recording = startRecording(library.path(), {"--duration", "40"});
    ASSERT_TRUE(eventually([&] { return !onlyMovie(library.path()).empty(); }, 30)) << readText(errFile());
    const fs::path movie = onlyMovie(library.path());
    auto pointerAt = [&](double x, double y) {
        auto journal = CursorTrack::readJournal(movie);
        if (!journal)
            return false;
        for (const auto& s : journal->track.value.samples)
            if (std::abs(s.x - x) <= 1 && std::abs(s.y - y) <= 1)
                return true;
        return false;
    };
    ASSERT_TRUE(eventually([&] { return pointerAt(300, 200); }, 20)) << readText(errFile());
    std::this_thread::sleep_for(1000ms);
    ASSERT_TRUE(gnome.movePointer(900, 600));
    ASSERT_TRUE(gnome.click());
    EXPECT_TRUE(eventually([&] { return pointerAt(900, 600); }, 20));
    std::this_thread::sleep_for(1000ms);
    kill(recording->pid(), SIGINT);
    CommandResult first{recording->wait(), {}, readText(errFile())};
    // These machines have no input devices: the plim is kept without clicks and keys (status 2).
    EXPECT_EQ(first.status, 2) << first.err;
    EXPECT_NE(first.err.find("through the desktop portal (PipeWire): this is a Wayland session"), std::string::npos)
        << first.err;
    EXPECT_NE(first.err.find("without clicks and keys"), std::string::npos) << first.err;

    EXPECT_EQ(probe(movie, "v:0", "stream=width,height"), "1280,800");
    // A frame a tick at 30 per second, the still ones included: those written and those a
    // loaded machine let slip, which plimctl counts.
    const int frames = std::atoi(probe(movie, "v:0", "stream=nb_read_frames", {"-count_frames"}).c_str());
    int dropped = -1;
    double seconds = 0;
    if (auto at = first.err.find(" frames, "); at != std::string::npos)
        dropped = std::atoi(first.err.c_str() + at + 9);
    if (auto at = first.err.find(".mov ("); at != std::string::npos)
        seconds = std::atof(first.err.c_str() + at + 6);
    EXPECT_NEAR(frames + dropped, 30 * seconds, 15) << first.err;
    EXPECT_GE(frames, 20);
    std::istringstream times(probe(movie, "v:0", "packet=pts_time"));
    double last = -1, time = 0;
    int rising = 0, packets = 0;
    for (std::string line; std::getline(times, line); ++packets) {
        time = std::atof(line.c_str());
        rising += time > last;
        last = time;
    }
    EXPECT_EQ(rising, packets);
    EXPECT_NEAR(last, seconds, 0.3);
    for (double at : {0.5, seconds - 0.5}) {
        auto colour = castColour(movie, at, 700, 300, 1200, 700);
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(colour[c], background[c], 8) << "colour " << c << " at " << at << " s";
    }

    // The pointer from the stream's cursor metadata: where it was moved, before and after.
    auto track = CursorTrack::read(movie);
    ASSERT_TRUE(track) << track.error().sentence;
    const auto& samples = track->value.samples;
    ASSERT_GE(samples.size(), 100u);
    // Until the first move shows (a loaded desktop may take seconds to apply it) the pointer
    // is where the desktop started it.
    int before = 0, after = 0, elsewhere = 0;
    for (const auto& s : samples) {
        if (std::abs(s.x - 300) <= 1 && std::abs(s.y - 200) <= 1)
            ++before;
        else if (before == 0)
            continue;
        else if (std::abs(s.x - 900) <= 1 && std::abs(s.y - 600) <= 1)
            ++after;
        else
            ++elsewhere;
    }
    EXPECT_GE(before, 30) << samples.front().x << "," << samples.front().y;
    EXPECT_GE(after, 30) << samples.back().x << "," << samples.back().y;
    EXPECT_LE(elsewhere, 3);

    // The token the desktop handed back is kept, and a second recording needs no grant.
    const std::string kept = keptToken();
    ASSERT_FALSE(kept.empty());
    TempDir again;
    auto second = record(again.path(), {"--duration", "1.5", "--area", "640,400,320,200"});
    EXPECT_EQ(second.status, 2) << second.err;
    const fs::path cropped = onlyMovie(again.path());
    ASSERT_FALSE(cropped.empty()) << second.err;
    EXPECT_EQ(probe(cropped, "v:0", "stream=width,height"), "320,200");
    EXPECT_FALSE(keptToken().empty());

    // With the portal gone, forcing it says so and records nothing; choosing by itself, Plim
    // says neither Wayland way is open.
    gnome.stopPortal();
    TempDir none;
    auto forced = record(none.path(), {"--duration", "1", "--backend", "portal"});
    EXPECT_EQ(forced.status, 1);
    EXPECT_NE(forced.err.find("offers no screen cast"), std::string::npos) << forced.err;
    EXPECT_NE(forced.err.find("Leave out --backend portal"), std::string::npos) << forced.err;
    auto chosen = record(none.path(), {"--duration", "1"});
    EXPECT_EQ(chosen.status, 1);
    EXPECT_NE(chosen.err.find("This is a Wayland session, and Plim cannot read its screen."), std::string::npos)
        << chosen.err;
    EXPECT_TRUE(onlyMovie(none.path()).empty());
}

TEST_F(PortalCapture, KeepsTheRecordingWhenTheDesktopStopsSharing)
{
    gnome.startClient({"foot", "--fullscreen", "-o", "colors.background=c03020", "sleep", "600"});
    const std::string grant = gnome.grantScreenCast();
    ASSERT_FALSE(grant.empty());
    writeText(sandbox.home() / ".config/plim/settings.json", "{\"screenCastRestoreToken\": \"" + grant + "\"}\n");
    gnome.handOver(sandbox.home());

    // A still screen for longer than a paused stream is given: the recording rolls on until
    // the desktop ends the share.
    TempDir library;
    auto recording = startRecording(library.path(), {"--duration", "40"});
    ASSERT_TRUE(eventually([&] { return readText(errFile()).find("Rolling 0:05") != std::string::npos; }, 40))
        << readText(errFile());
    ASSERT_TRUE(gnome.stopScreenCasts());
    const int status = recording->wait();
    const std::string err = readText(errFile());
    EXPECT_EQ(status, 1) << err;
    EXPECT_NE(err.find("Recording ended early at 0:0"), std::string::npos) << err;
    EXPECT_NE(err.find(" because the desktop stopped sharing the screen. What was recorded up to then is kept."),
        std::string::npos)
        << err;

    // What was recorded is written out whole: it plays to its end, its track beside it.
    const fs::path movie = onlyMovie(library.path());
    ASSERT_FALSE(movie.empty()) << err;
    const double seconds = std::atof(probe(movie, "", "format=duration").c_str());
    EXPECT_GE(seconds, 5) << err;
    EXPECT_LE(seconds, 12) << err;
    EXPECT_GE(std::atoi(probe(movie, "v:0", "stream=nb_read_frames", {"-count_frames"}).c_str()), 30 * 4);
    auto colour = castColour(movie, seconds - 0.3, 700, 300, 1200, 700);
    for (int c = 0; c < 3; ++c)
        EXPECT_NEAR(colour[c], background[c], 8) << "colour " << c;
    EXPECT_TRUE(CursorTrack::read(movie)) << err;
}

// A portal backend of the test's own on the desktop's bus that answers the share dialog
// with `answer` (1: the user cancelled it; 2: it failed), standing in for the user's click.
class DialogAnswer {
public:
    DialogAnswer(const std::vector<std::string>& env, uint32_t answer)
    {
        std::string address;
        for (const auto& variable : env)
            if (variable.starts_with("DBUS_SESSION_BUS_ADDRESS="))
                address = variable.substr(25);
        m_connection = sdbus::createSessionBusConnectionWithAddress(address);
        m_connection->requestName(name);
        m_object = sdbus::createObject(*m_connection, "/org/freedesktop/portal/desktop");
        const std::string impl = "org.freedesktop.impl.portal.ScreenCast";
        using Options = std::map<std::string, sdbus::Variant>;
        using Answer = std::tuple<uint32_t, Options>;
        m_object->registerMethod("CreateSession").onInterface(impl).implementedAs(
            [](sdbus::ObjectPath, sdbus::ObjectPath, std::string, Options) { return Answer{0, {}}; });
        m_object->registerMethod("SelectSources").onInterface(impl).implementedAs(
            [](sdbus::ObjectPath, sdbus::ObjectPath, std::string, Options) { return Answer{0, {}}; });
        m_object->registerMethod("Start").onInterface(impl).implementedAs(
            [answer](sdbus::ObjectPath, sdbus::ObjectPath, std::string, std::string, Options) { return Answer{answer, {}}; });
        m_object->registerProperty("AvailableSourceTypes").onInterface(impl).withGetter([] { return uint32_t(1); });
        m_object->registerProperty("AvailableCursorModes").onInterface(impl).withGetter([] { return uint32_t(2); });
        m_object->registerProperty("version").onInterface(impl).withGetter([] { return uint32_t(4); });
        m_object->finishRegistration();
        m_connection->enterEventLoopAsync();
    }
    ~DialogAnswer() { m_connection->leaveEventLoop(); }

    // A folder naming this backend to the portal for GNOME's screen cast.
    void describeIn(const fs::path& folder) const
    {
        writeText(folder / "plimtest.portal", std::string("[portal]\nDBusName=") + name
                + "\nInterfaces=org.freedesktop.impl.portal.ScreenCast;\nUseIn=gnome\n");
    }

    static constexpr const char* name = "org.freedesktop.impl.portal.desktop.plimtest";

private:
    std::unique_ptr<sdbus::IConnection> m_connection;
    std::unique_ptr<sdbus::IObject> m_object;
};

TEST_F(PortalCapture, RecordsNothingWhenTheShareIsRefused)
{
    TempDir backends;
    for (uint32_t answer : {1u, 2u}) {
        SCOPED_TRACE(answer);
        DialogAnswer dialog(env, answer);
        dialog.describeIn(backends.path());
        gnome.handOver(backends.path());
        ASSERT_TRUE(gnome.restartPortal(backends.path()));
        TempDir library;
        auto refused = record(library.path(), {"--duration", "2", "--backend", "portal"});
        EXPECT_EQ(refused.status, 1) << refused.err;
        EXPECT_TRUE(onlyMovie(library.path()).empty()) << refused.err;
        const std::string said = answer == 1
            ? "The desktop's screen-sharing dialog was cancelled, so Plim may not read the screen. Nothing was "
              "recorded. Record again and choose a display in the dialog."
            : "The desktop portal refused to share the screen. Nothing was recorded.";
        EXPECT_NE(refused.err.find(said), std::string::npos) << refused.err;
    }
}

} // namespace
} // namespace plim
