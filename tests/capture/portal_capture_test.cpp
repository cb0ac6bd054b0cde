// The portal backend against a real desktop portal: GNOME's (mutter headless with a virtual
// monitor, xdg-desktop-portal-gnome, PipeWire), with a full-screen terminal printing the time.
// plimctl records it through the portal with no dialog (the grant seeded in the permission
// store, as an earlier choice would leave it), then again with the restore token the first
// recording kept; the movies, the pointer's track and the failure sentences are checked.
// A share the desktop ends mid-recording keeps what was recorded; a share the dialog refuses
// (a backend of the test's own answers it, the portal itself real) records nothing. With
// gnome-shell in mutter's place, a window that resizes itself is recorded.

#include "base/json.h"
#include "capture/cursor_track.h"
#include "testkit/gnome_session.h"
#include "testkit/testkit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <signal.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>
#include <thread>
#include <tuple>

namespace plim {
namespace {

using namespace testkit;
using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

// The terminal's background, which fills the screen right of the printed times.
constexpr std::array<int, 3> background{0xc0, 0x30, 0x20};

class PortalCapture : public ::testing::Test {
protected:
    explicit PortalCapture(GnomeSession::Compositor compositor = GnomeSession::Compositor::mutter)
        : gnome("1280x800", compositor)
    {
    }
    void SetUp() override
    {
        if (!gnome.isUp())
            GTEST_SKIP() << gnome.trouble();
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
        return std::make_unique<ChildProcess>(gnome.asUser(argv), gnome.environment(), "/dev/null", errFile());
    }
    CommandResult record(const fs::path& library, std::vector<std::string> extra)
    {
        const int status = startRecording(library, std::move(extra))->wait();
        return {status, {}, readText(errFile())};
    }
    fs::path errFile() const { return scratch / "err.txt"; }

    // Keeps `grant` in Plim's settings under `key`, as an earlier recording would have.
    bool keepGrant(const std::string& key, const std::string& grant)
    {
        writeText(sandbox.home() / ".config/plim/settings.json", "{\"" + key + "\": \"" + grant + "\"}\n");
        gnome.handOver(sandbox.home());
        return !grant.empty();
    }

    std::string keptToken() const
    {
        auto settings = Json::parse(readText(sandbox.home() / ".config/plim/settings.json"), nullptr, false);
        return settings.is_object() ? settings.value("screenCastRestoreToken", "") : "";
    }

    XdgSandbox sandbox;
    TempDir scratch;
    GnomeSession gnome;
};

TEST_F(PortalCapture, RecordsTheScreenAndPointerThenReusesTheChoice)
{
    gnome.startClient({"foot", "--fullscreen", "-o", "colors.background=c03020", "sh", "-c",
        "while true; do date +%T.%N; sleep 0.02; done"});
    ASSERT_TRUE(keepGrant("screenCastRestoreToken", gnome.grantScreenCast()));
    ASSERT_TRUE(gnome.movePointer(300, 200));

    // The recording runs until the pointer's move shows in its journal (a loaded machine may
    // take seconds to paint), then a second more, and is stopped as Ctrl-C would.
    TempDir library;
    auto recording = startRecording(library.path(), {"--duration", "40"});
    ASSERT_TRUE(eventually([&] { return !onlyMovie(library.path()).empty(); }, 30)) << readText(errFile());
    const fs::path movie = onlyMovie(library.path());
    auto pointerAt = [&](double x, double y) {
        auto journal = CursorTrack::readJournal(movie);
        return journal && std::ranges::any_of(journal->track.value.samples, [&](const CursorSample& s) {
            return std::abs(s.x - x) <= 1 && std::abs(s.y - y) <= 1;
        });
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
    EXPECT_THAT(first.err, HasSubstr("through the desktop portal (PipeWire): this is a Wayland session"));
    EXPECT_THAT(first.err, HasSubstr("without clicks and keys"));

    EXPECT_EQ(probe(movie, "v:0", "stream=width,height"), "1280,800");
    // A frame a tick at 30 per second, the still ones included: those written and those a
    // loaded machine let slip, which plimctl counts.
    const int frames = std::atoi(probe(movie, "v:0", "stream=nb_read_frames", {"-count_frames"}).c_str());
    const auto [dropped, seconds] = recordedSummary(first.err);
    EXPECT_NEAR(frames + dropped, 30 * seconds, 15) << first.err;
    EXPECT_GE(frames, 20);
    // Packet times rise throughout and end at the recorded length.
    std::istringstream times(probe(movie, "v:0", "packet=pts_time"));
    double last = -1;
    for (std::string line; std::getline(times, line); last = std::atof(line.c_str()))
        EXPECT_GT(std::atof(line.c_str()), last);
    EXPECT_NEAR(last, seconds, 0.3);
    for (double at : {0.5, seconds - 0.5})
        EXPECT_LE(colourGap(movie, at, 700, 300, 500, 400, background), 8) << "at " << at << " s";

    // The pointer from the stream's cursor metadata: where it was moved, before and after.
    auto track = CursorTrack::read(movie);
    ASSERT_TRUE(track) << track.error().sentence;
    const auto& samples = track->value.samples;
    ASSERT_GE(samples.size(), 100u);
    // Until the first move shows (a loaded desktop may take seconds to apply it) the pointer
    // is where the desktop started it; each move passes through the top-left corner, where a
    // loaded desktop may leave it for a while.
    int before = 0, after = 0, elsewhere = 0;
    for (const auto& s : samples) {
        if (std::abs(s.x - 300) <= 1 && std::abs(s.y - 200) <= 1)
            ++before;
        else if (before == 0 || (s.x <= 1 && s.y <= 1))
            continue;
        else if (std::abs(s.x - 900) <= 1 && std::abs(s.y - 600) <= 1)
            ++after;
        else
            ++elsewhere;
    }
    EXPECT_GE(before, 30) << samples.front().x << "," << samples.front().y;
    EXPECT_GE(after, 30) << samples.back().x << "," << samples.back().y;
    // A wrong track (scale, origin, hotspot) puts most samples elsewhere; a loaded desktop a
    // few, while the move shows.
    EXPECT_LE(elsewhere, int(samples.size()) / 10);

    // The token the desktop handed back is kept, and a second recording needs no grant.
    ASSERT_FALSE(keptToken().empty());
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
    EXPECT_THAT(forced.err, HasSubstr("offers no screen cast"));
    EXPECT_THAT(forced.err, HasSubstr("Leave out --backend portal"));
    auto chosen = record(none.path(), {"--duration", "1"});
    EXPECT_EQ(chosen.status, 1);
    EXPECT_THAT(chosen.err, HasSubstr("This is a Wayland session, and Plim cannot read its screen."));
    EXPECT_TRUE(onlyMovie(none.path()).empty());
}

TEST_F(PortalCapture, KeepsTheRecordingWhenTheDesktopStopsSharing)
{
    gnome.startClient({"foot", "--fullscreen", "-o", "colors.background=c03020", "sleep", "600"});
    ASSERT_TRUE(keepGrant("screenCastRestoreToken", gnome.grantScreenCast()));

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
    EXPECT_THAT(err, HasSubstr("Recording ended early at 0:0"));
    EXPECT_THAT(
        err, HasSubstr(" because the desktop stopped sharing the screen. What was recorded up to then is kept."));

    // What was recorded is written out whole: it plays to its end, its track beside it.
    const fs::path movie = onlyMovie(library.path());
    ASSERT_FALSE(movie.empty()) << err;
    const double seconds = std::atof(probe(movie, "", "format=duration").c_str());
    EXPECT_GE(seconds, 5) << err;
    EXPECT_LE(seconds, 12) << err;
    EXPECT_GE(std::atoi(probe(movie, "v:0", "stream=nb_read_frames", {"-count_frames"}).c_str()), 30 * 4);
    EXPECT_LE(colourGap(movie, seconds - 0.3, 700, 300, 500, 400, background), 8);
    EXPECT_TRUE(CursorTrack::read(movie)) << err;
}

// A portal backend of the test's own on the desktop's bus (at `address`) that answers the
// share dialog with `answer` (1: the user cancelled it; 2: it failed), standing in for the
// user's click.
class DialogAnswer {
public:
    DialogAnswer(const std::string& address, uint32_t answer)
    {
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
        DialogAnswer dialog(gnome.busAddress(), answer);
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
        EXPECT_THAT(refused.err, HasSubstr(said));
    }
}

// A window of one colour that resizes itself: SIGUSR1 grows it, SIGUSR2 shrinks it, each
// time in a colour of its own.
constexpr const char* resizingWindow = R"(import signal
import gi
gi.require_version("Gtk", "4.0")
from gi.repository import Gdk, Gio, GLib, Gtk

looks = {signal.SIGUSR1: (640, 480, "grown"), signal.SIGUSR2: (240, 180, "shrunk")}

def activate(app):
    css = Gtk.CssProvider()
    css.load_from_data(b".first { background: #2060c0; } .grown { background: #e09020; } .shrunk { background: #30a040; }")
    Gtk.StyleContext.add_provider_for_display(Gdk.Display.get_default(), css, 800)
    window = Gtk.ApplicationWindow(application=app, title="Plim resizing window")
    window.set_decorated(False)
    window.set_default_size(400, 300)
    window.set_css_classes(["first"])
    window.present()
    def resize(number):
        width, height, look = looks[number]
        window.set_css_classes([look])
        window.set_default_size(width, height)
        return True
    for number in looks:
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, number, resize, number)

app = Gtk.Application(application_id="org.plim.ResizingWindow", flags=Gio.ApplicationFlags.NON_UNIQUE)
app.connect("activate", activate)
app.run(None)
)";
constexpr std::array<std::array<int, 3>, 3> windowLooks{{{0x20, 0x60, 0xc0}, {0xe0, 0x90, 0x20}, {0x30, 0xa0, 0x40}}};

class PortalWindowCapture : public PortalCapture {
protected:
    PortalWindowCapture() : PortalCapture(GnomeSession::Compositor::shell) {}
};

TEST_F(PortalWindowCapture, RecordsAWindowThatResizesItself)
{
    const fs::path script = gnome.folder() / "resizing_window.py";
    writeText(script, resizingWindow);
    ChildProcess& client = gnome.startClient({"env", "GTK_A11Y=none", "python3", script.string()});
    auto shown = [&](int width, int height) -> std::optional<GnomeSession::Window> {
        for (const auto& window : gnome.windows())
            if (window.title == "Plim resizing window" && window.width == width && window.height == height)
                return window;
        return std::nullopt;
    };
    std::optional<GnomeSession::Window> window;
    ASSERT_TRUE(eventually([&] { return (window = shown(400, 300)).has_value(); }, 30));
    ASSERT_TRUE(keepGrant("screenCastWindowRestoreToken", gnome.grantWindowCast(*window)));

    // The window grows after a second of recording and shrinks a second after that; the
    // recording goes on over both.
    TempDir library;
    auto recording = startRecording(library.path(), {"--backend", "portal", "--pick-window", "--duration", "40"});
    ASSERT_TRUE(eventually([&] { return readText(errFile()).find("Rolling 0:01") != std::string::npos; }, 30))
        << readText(errFile());
    kill(client.pid(), SIGUSR1);
    ASSERT_TRUE(eventually([&] { return shown(640, 480).has_value(); }, 20));
    std::this_thread::sleep_for(1000ms);
    kill(client.pid(), SIGUSR2);
    ASSERT_TRUE(eventually([&] { return shown(240, 180).has_value(); }, 20));
    std::this_thread::sleep_for(1000ms);
    kill(recording->pid(), SIGINT);
    const int status = recording->wait();
    const std::string err = readText(errFile());
    // These machines have no input devices: the plim is kept without clicks and keys (status 2).
    EXPECT_EQ(status, 2) << err;
    EXPECT_THAT(err, HasSubstr("Recording the window shared by the desktop"));
    EXPECT_THAT(err, Not(HasSubstr("ended early")));

    // The movie keeps the window's first size, and shows each look in turn, in full frames
    // (nothing stretched, nothing half drawn); the shrunk window is padded with black.
    const fs::path movie = onlyMovie(library.path());
    ASSERT_FALSE(movie.empty()) << err;
    ASSERT_EQ(probe(movie, "v:0", "stream=width,height"), "400,300");
    const std::string patches = runCommand({"ffmpeg", "-v", "error", "-i", movie.string(), "-vf", "crop=8:8:100:100",
        "-f", "rawvideo", "-pix_fmt", "rgb24", "-"}).out;
    constexpr size_t patch = 8 * 8 * 3;
    std::array<int, 3> framesOf{};
    int look = 0, strays = 0;
    for (size_t at = 0; at + patch <= patches.size(); at += patch) {
        std::array<double, 3> mean{};
        for (size_t i = 0; i < patch; ++i)
            mean[i % 3] += uint8_t(patches[at + i]) / 64.0;
        auto near = [&](int which) {
            for (int c = 0; c < 3; ++c)
                if (std::abs(mean[c] - windowLooks[which][c]) > 12)
                    return false;
            return true;
        };
        if (look < 2 && near(look + 1))
            ++look;
        if (near(look))
            ++framesOf[look];
        else
            ++strays;
    }
    EXPECT_EQ(strays, 0);
    for (int which = 0; which < 3; ++which)
        EXPECT_GE(framesOf[which], 10) << "look " << which;
    const double seconds = std::atof(probe(movie, "", "format=duration").c_str());
    EXPECT_LE(colourGap(movie, seconds - 0.2, 20, 20, 200, 140, windowLooks[2]), 12);
    EXPECT_LE(colourGap(movie, seconds - 0.2, 260, 200, 140, 100, {0, 0, 0}), 8);
}

} // namespace
} // namespace plim
