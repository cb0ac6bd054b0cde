// The portal backend against KDE's real portal: KWin on its virtual backend, xdg-desktop-portal-kde
// and PipeWire, with a full-screen window printing the time. KWin 5.27's virtual backend sends
// no picture for a cast of its display, so the window is what plimctl records: with no dialog
// (the grant seeded in the permission store, as an earlier choice would leave it), then again
// with the restore token the first recording kept.

#include "base/json.h"
#include "capture/cursor_track.h"
#include "testkit/headless_desktop.h"
#include "testkit/kde_session.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>

namespace plim {
namespace {

using namespace testkit;

constexpr int width = 1280, height = 800;

// A GTK window filling the screen in the background colour, the time printed at its top left.
constexpr const char* clockWindow = R"(
import gi
gi.require_version('Gtk', '4.0')
from gi.repository import Gtk, GLib, Gio
def show(app):
    css = Gtk.CssProvider()
    css.load_from_data(b'window { background: #c03020; } label { color: white; font-size: 30px; }')
    window = Gtk.ApplicationWindow(application=app)
    Gtk.StyleContext.add_provider_for_display(window.get_display(), css, 800)
    label = Gtk.Label(halign=Gtk.Align.START, valign=Gtk.Align.START)
    window.set_child(label)
    GLib.timeout_add(50, lambda: label.set_text(GLib.DateTime.new_now_local().format('%T.%f')) or True)
    window.fullscreen()
    window.present()
app = Gtk.Application(application_id='org.plim.KdeTest', flags=Gio.ApplicationFlags.NON_UNIQUE)
app.connect('activate', show)
app.run([])
)";
constexpr std::array<int, 3> background{0xc0, 0x30, 0x20};

TEST(PortalKde, RecordsAWindowWithNoDialogThenReusesTheChoice)
{
    if (runCommand({"/usr/bin/python3", "-c", "import gi; gi.require_version('Gtk', '4.0')"}).status != 0)
        GTEST_SKIP() << "The test window needs GTK 4 for Python (python3-gi, gir1.2-gtk-4.0), which is not installed.";
    KdeSession kde;
    if (!kde.isUp())
        GTEST_SKIP() << kde.trouble();
    kde.startClient({"env", "GSK_RENDERER=cairo", "GTK_A11Y=none", "python3", "-c", clockWindow});
    std::string window;
    ASSERT_TRUE(eventually([&] { return !(window = kde.windowId("org.plim.KdeTest")).empty(); }, 30))
        << "KWin never listed the test window: " << readText(kde.folder() / "kwin.log");

    XdgSandbox sandbox;
    const fs::path settings = sandbox.home() / ".config/plim/settings.json";
    fs::create_directories(settings.parent_path());
    const std::string grant = kde.grantWindowCast(window);
    ASSERT_FALSE(grant.empty());
    writeText(settings, "{\"screenCastWindowRestoreToken\": \"" + grant + "\"}\n");
    kde.handOver(sandbox.home());
    auto record = [&](const fs::path& library) {
        kde.handOver(library);
        return runCommand(kde.asUser({"timeout", "60", builtExecutable("plimctl").string(), "record", "--library",
                              library.string(), "--fps", "30", "--no-keys", "--backend", "portal", "--pick-window",
                              "--duration", "3"}),
            kde.environment());
    };

    TempDir library;
    const CommandResult first = record(library.path());
    // These machines have no input devices: the plim is kept without clicks and keys (status 2).
    EXPECT_EQ(first.status, 2) << first.err;
    EXPECT_NE(first.err.find("through the desktop portal (PipeWire)"), std::string::npos) << first.err;
    const fs::path movie = onlyMovie(library.path());
    ASSERT_FALSE(movie.empty()) << first.err;
    EXPECT_EQ(probe(movie, "v:0", "stream=width,height"), "1280,800");
    // A frame a tick at 30 per second: those written and those counted dropped (a loaded
    // machine's, and the ticks before the window's first picture came).
    const int frames = std::atoi(probe(movie, "v:0", "stream=nb_read_frames", {"-count_frames"}).c_str());
    const auto [dropped, seconds] = recordedSummary(first.err);
    EXPECT_NEAR(frames + dropped, 30 * seconds, 3) << first.err;
    EXPECT_GE(frames, 20);
    // The window's colour right of the time, and the time itself moving on.
    for (double at : {0.5, seconds - 0.5})
        EXPECT_LE(colourGap(movie, at, 700, 300, 500, 400, background), 8) << "at " << at << " s";
    EXPECT_NE(pictureArea(movie, 0.5, 0, 0, 300, 40), pictureArea(movie, seconds - 0.5, 0, 0, 300, 40));
    // The pointer from KWin's cursor metadata: nothing moves it, so it stays where KWin put
    // it, inside the window.
    auto track = CursorTrack::read(movie);
    ASSERT_TRUE(track) << track.error().sentence;
    const auto& samples = track->value.samples;
    ASSERT_GE(samples.size(), 30u);
    for (const auto& sample : samples)
        ASSERT_TRUE(sample.x == samples[0].x && sample.y == samples[0].y && sample.x > 0 && sample.x < width
            && sample.y > 0 && sample.y < height) << sample.x << "," << sample.y;

    // The token the desktop handed back is kept, and a second recording needs no grant: a
    // dialog here would fail (the portal's dialog cannot load without Plasma's QML modules).
    auto kept = Json::parse(readText(settings), nullptr, false);
    ASSERT_TRUE(kept.is_object() && kept.contains("screenCastWindowRestoreToken")) << readText(settings);
    EXPECT_FALSE(kept["screenCastWindowRestoreToken"].get<std::string>().empty());
    TempDir again;
    const CommandResult second = record(again.path());
    EXPECT_EQ(second.status, 2) << second.err;
    const fs::path secondMovie = onlyMovie(again.path());
    ASSERT_FALSE(secondMovie.empty()) << second.err;
    EXPECT_EQ(probe(secondMovie, "v:0", "stream=width,height"), "1280,800");
}

} // namespace
} // namespace plim
