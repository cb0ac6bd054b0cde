// The plim program as the running desktop application: one instance on the session bus,
// the control verbs, the countdown, the tray item's menu and the main menu, each test with
// its own X server, session bus and home folder.

#include "testkit/pipewire_server.h"
#include "testkit/servers.h"
#include "testkit/session_bus.h"
#include "testkit/test_movies.h"
#include "testkit/test_window.h"
#include "testkit/testkit.h"
#include "ui/live_bar.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <csignal>
#include <mutex>
#include <regex>
#include <sstream>
#include <thread>

using namespace plim;
using namespace plim::testkit;
using ::testing::HasSubstr;

namespace {

// Stands in for a desktop's tray host: the StatusNotifierWatcher Qt looks for when it starts,
// noting the items that register with it.
class TrayWatcher {
public:
    TrayWatcher()
    {
        const char* interface = "org.kde.StatusNotifierWatcher";
        m_connection = sdbus::createSessionBusConnection(interface);
        m_object = sdbus::createObject(*m_connection, "/StatusNotifierWatcher");
        m_object->registerMethod("RegisterStatusNotifierItem").onInterface(interface).implementedAs(
            [this](const std::string& service) {
                std::lock_guard guard(m_lock);
                m_items.push_back(service);
            });
        m_object->registerMethod("RegisterStatusNotifierHost").onInterface(interface).implementedAs(
            [](const std::string&) {});
        m_object->registerProperty("IsStatusNotifierHostRegistered").onInterface(interface).withGetter([] {
            return true;
        });
        m_object->registerProperty("ProtocolVersion").onInterface(interface).withGetter([] { return int32_t(0); });
        m_object->registerProperty("RegisteredStatusNotifierItems").onInterface(interface).withGetter([this] {
            return items();
        });
        m_object->finishRegistration();
        m_connection->enterEventLoopAsync();
    }
    ~TrayWatcher() { m_connection->leaveEventLoop(); }
    std::vector<std::string> items() const
    {
        std::lock_guard guard(m_lock);
        return m_items;
    }

private:
    std::unique_ptr<sdbus::IConnection> m_connection;
    std::unique_ptr<sdbus::IObject> m_object;
    mutable std::mutex m_lock;
    std::vector<std::string> m_items;
};

class Shell : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(xvfb.isUp());
        ASSERT_TRUE(bus.ready()) << bus.daemonErrors();
    }

    void rememberChoice(int countdownSeconds, const std::string& more = "")
    {
        fs::create_directories(sandbox.home() / ".config/plim");
        writeText(sandbox.home() / ".config/plim/settings.json",
            "{\"countdownSeconds\": " + std::to_string(countdownSeconds) + more + "}");
    }
    std::vector<std::string> env() const
    {
        std::vector<std::string> all = {"DISPLAY=" + xvfb.display(), "PLIM_LOG=stderr"};
        all.insert(all.end(), extraEnv.begin(), extraEnv.end());
        return all;
    }

    // The application, its output kept for the failure messages.
    std::unique_ptr<ChildProcess> startApp(std::vector<std::string> args = {})
    {
        args.insert(args.begin(), builtExecutable("plim").string());
        return std::make_unique<ChildProcess>(args, env(), logs / "out", logs / "err");
    }
    CommandResult plim(const std::string& verb) { return runCommand({builtExecutable("plim").string(), verb}, env()); }
    // Whether a window of that name shows on the screen.
    bool showing(const std::string& name)
    {
        return runCommand({"xdotool", "search", "--onlyvisible", "--name", name}, env()).status == 0;
    }
    std::string appErrors() const { return readText(logs / "err"); }

    std::vector<fs::path> files(const std::string& ending) const
    {
        std::vector<fs::path> found;
        std::error_code ec;
        for (auto it = fs::recursive_directory_iterator(sandbox.videos(), ec); !ec && it != fs::end(it); ++it)
            if (it->path().string().ends_with(ending))
                found.push_back(it->path());
        return found;
    }
    // Waits for the stop flow's automatic edit, written once the movie is finished.
    void expectFinishedPlim(size_t count, const std::string& size = "1280,720")
    {
        ASSERT_TRUE(eventually([&] { return files(".edits.json").size() == count; }, 90)) << appErrors();
        for (const auto& movie : files(".mov")) {
            EXPECT_EQ(probe(movie, "v:0", "stream=width,height"), size) << movie;
            EXPECT_GT(std::stod(probe(movie, "", "format=duration")), 0.3) << movie;
        }
    }

    std::vector<std::string> extraEnv;
    XdgSandbox sandbox;
    XvfbServer xvfb;
    TestSessionBus bus;
    TempDir logs;
};

TEST_F(Shell, ToggleStartsTheAppAndRecordsAndASecondToggleStopsIt)
{
    // The remembered area; the outline and the live bar stay outside the recorded picture.
    rememberChoice(0, ", \"recordSubject\": \"area\", \"recordArea\": [200, 120, 640, 400]");
    auto app = startApp({"--toggle"});
    ASSERT_TRUE(eventually([&] { return files(".mov").size() == 1; }, 60)) << appErrors();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    auto second = plim("--toggle");
    EXPECT_EQ(second.status, 0) << second.err;
    expectFinishedPlim(1, "640,400");

    // The last frame has none of the outline's red in it.
    const auto frame = runCommand({"ffmpeg", "-v", "error", "-sseof", "-0.5", "-i", files(".mov").front().string(),
        "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"});
    const std::string& pixels = frame.out;
    ASSERT_EQ(pixels.size(), 640u * 400u * 3u) << frame.err;
    size_t red = 0;
    for (size_t i = 0; i + 2 < pixels.size(); i += 3)
        red += uint8_t(pixels[i]) > 150 && uint8_t(pixels[i + 1]) < 90 && uint8_t(pixels[i + 2]) < 90;
    EXPECT_EQ(red, 0u);
}

TEST_F(Shell, EscapeDuringTheCountdownRecordsNothing)
{
    rememberChoice(5);
    auto app = startApp({"--toggle"});
    ASSERT_TRUE(eventually([&] { return showing("Plim countdown"); }, 60)) << appErrors();
    EXPECT_EQ(runCommand({"xdotool", "key", "Escape"}, env()).status, 0);
    std::this_thread::sleep_for(std::chrono::seconds(6));
    EXPECT_TRUE(files(".mov").empty());
    EXPECT_THAT(appErrors(), HasSubstr("The recording was cancelled before it started. Nothing was recorded."));
    // Still running, and still answering its verbs; a movie named to a second start opens in
    // the running one's editor.
    EXPECT_EQ(plim("--show").status, 0);
    const fs::path movie = sandbox.videos() / "Named Plim.mov";
    fs::create_directories(movie.parent_path());
    ASSERT_TRUE(writeTestMovie(movie, TestMovie{}));
    EXPECT_EQ(plim(movie.string()).status, 0);
    EXPECT_TRUE(eventually([&] { return showing("^Named Plim$"); }, 30)) << appErrors();
}

// The verb's whole path: the picker over the screen, a drag with the real pointer, Enter,
// and a movie of exactly the dragged size.
TEST_F(Shell, RecordAreaRecordsExactlyTheDraggedArea)
{
    rememberChoice(0);
    auto app = startApp({"--record-area"});
    ASSERT_TRUE(eventually([&] { return showing("Plim area picker"); }, 60)) << appErrors();
    auto drag = runCommand({"xdotool", "mousemove", "100", "80", "mousedown", "1", "mousemove", "300", "200",
                               "mousemove", "580", "400", "mouseup", "1", "key", "Return"},
        env());
    ASSERT_EQ(drag.status, 0) << drag.err;
    ASSERT_TRUE(eventually([&] { return files(".mov").size() == 1; }, 60)) << appErrors();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(plim("--stop").status, 0);
    expectFinishedPlim(1, "480,320");
}

// Under a window manager that frames and moves the window itself, on a screen scaled by 2.
TEST_F(Shell, TheOutlineFollowsARecordedWindowThatMoves)
{
    extraEnv = {"QT_SCALE_FACTOR=2"};
    ChildProcess windowManager({"openbox", "--sm-disable"}, env(), logs / "wm.out", logs / "wm.err");
    ASSERT_TRUE(eventually([&] {
        return runCommand({"xprop", "-root", "_NET_SUPPORTING_WM_CHECK"}, env()).out.find("window id") != std::string::npos;
    }, 20)) << readText(logs / "wm.err");
    TestWindow window(xvfb.display(), 100, 100, 320, 200, 0x3060c0);
    rememberChoice(0, ", \"recordSubject\": \"window\", \"recordWindow\": " + std::to_string(window.id()));
    auto app = startApp({"--toggle"});
    // The edge above the window starts 3 points (6 pixels) above and left of it, and moves with it.
    auto topEdgeAt = [&](const std::string& place) {
        std::istringstream found(runCommand({"xdotool", "search", "--onlyvisible", "--name", "Plim outline"}, env()).out);
        for (std::string id; std::getline(found, id);)
            if (runCommand({"xdotool", "getwindowgeometry", id}, env()).out.find("Position: " + place) != std::string::npos)
                return true;
        return false;
    };
    ASSERT_TRUE(eventually([&] { return topEdgeAt("94,94"); }, 60)) << appErrors();
    ASSERT_EQ(runCommand({"xdotool", "windowmove", std::to_string(window.id()), "300", "250"}, env()).status, 0);
    EXPECT_TRUE(eventually([&] { return topEdgeAt("294,244"); }, 10)) << appErrors();
    std::this_thread::sleep_for(std::chrono::milliseconds(500)); // a quick machine gets here in 0.3 s
    EXPECT_EQ(plim("--stop").status, 0);
    expectFinishedPlim(1, "320,200");
}

TEST_F(Shell, ARecordingCutOffByAKillIsRecoveredAtTheNextStart)
{
    rememberChoice(0, ", \"recordSubject\": \"area\", \"recordArea\": [0, 0, 640, 360]");
    auto app = startApp({"--toggle"});
    ASSERT_TRUE(eventually([&] { return files(".rolling.json").size() == 1; }, 60)) << appErrors();
    std::this_thread::sleep_for(std::chrono::seconds(5));
    ::kill(app->pid(), SIGKILL);
    EXPECT_EQ(app->wait(), 128 + SIGKILL);
    ASSERT_EQ(files(".mov").size(), 1u);
    EXPECT_TRUE(files(".cursor.json").empty());

    app = startApp({"--show"});
    ASSERT_TRUE(eventually([&] { return files(".rolling.json").empty(); }, 60)) << appErrors();
    EXPECT_TRUE(eventually([&] { return appErrors().find("Plim was closed while recording") != std::string::npos; }, 10))
        << appErrors();
    // The plim shows as recovered to the user, in a window of its own.
    EXPECT_TRUE(eventually([&] { return showing("^Recovered Recording$"); }, 10)) << appErrors();
}

TEST_F(Shell, MainMenuProbePrintsEveryItemAndExits)
{
    auto result = runCommand({builtExecutable("plim").string()},
        {"DISPLAY=" + xvfb.display(), "PLIM_PROBE_MAIN_MENU=1"});
    EXPECT_EQ(result.status, 0) << result.err;
    for (const char* line : {"Plim ▸ Quit Plim\n", "File ▸ Record\n", "File ▸ Close Window\n",
             "View ▸ Enter Full Screen\n", "Window ▸ Minimize\n"})
        EXPECT_THAT(result.out, HasSubstr(line));

    // Only the exact value probes.
    ChildProcess running({builtExecutable("plim").string()}, {"DISPLAY=" + xvfb.display(), "PLIM_PROBE_MAIN_MENU=true"},
        logs / "out", logs / "err");
    std::this_thread::sleep_for(std::chrono::seconds(3));
    EXPECT_EQ(readText(logs / "out"), "") << appErrors();
}

// Desktop trays drive the item's menu over com.canonical.dbusmenu: read its layout, click.
TEST_F(Shell, TrayMenuRecordsStopsAndQuitsWhenItsItemsAreClicked)
{
    rememberChoice(0);
    TrayWatcher watcher;
    auto app = startApp();
    ASSERT_TRUE(eventually([&] { return !watcher.items().empty(); }, 60)) << appErrors();
    const std::string item = watcher.items().front();
    auto layout = runCommand({"gdbus", "call", "--session", "--dest", item, "--object-path", "/MenuBar", "--method",
        "com.canonical.dbusmenu.GetLayout", "--", "0", "-1", "[]"});
    ASSERT_EQ(layout.status, 0) << layout.err;
    // Each item reads (id, {'label': <'Record'>, ...}, ...).
    std::map<std::string, std::string> ids;
    std::regex entry(R"(\((\d+), \{[^}]*'label': <'([^']*)'>)");
    for (std::sregex_iterator it(layout.out.begin(), layout.out.end(), entry), end; it != end; ++it)
        ids[(*it)[2]] = (*it)[1];
    for (const char* label : {"Record", "Stop", "Pause", "Mark", "Open Library", "Settings…", "Quit Plim"})
        EXPECT_TRUE(ids.contains(label)) << label << " is not in " << layout.out;
    auto click = [&](const std::string& label) {
        return runCommand({"gdbus", "call", "--session", "--dest", item, "--object-path", "/MenuBar", "--method",
            "com.canonical.dbusmenu.Event", "--", ids[label], "clicked", "<0>", "0"});
    };
    ASSERT_EQ(click("Record").status, 0);
    ASSERT_TRUE(eventually([&] { return files(".mov").size() == 1; }, 60)) << appErrors();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    ASSERT_EQ(click("Stop").status, 0);
    expectFinishedPlim(1);

    // Quitting while rolling finishes the plim on disk before the process ends.
    ASSERT_EQ(click("Record").status, 0);
    ASSERT_TRUE(eventually([&] { return files(".mov").size() == 2; }, 60)) << appErrors();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    ASSERT_EQ(click("Quit Plim").status, 0);
    EXPECT_EQ(app->wait(), 0) << appErrors();
    EXPECT_EQ(files(".cursor.json").size(), 2u);
    for (const auto& movie : files(".mov"))
        EXPECT_GT(std::stod(probe(movie, "", "format=duration")), 0.3) << movie;
}

// Going live from the File menu by the keyboard, with a PipeWire for Plim Camera: the live
// bar's preview shows the screen in its own colours, its Stop Live button ends it;
// going live while a recording rolls is refused in a window with the sentence.
TEST_F(Shell, GoLiveShowsTheScreenInTheLiveBarStopsAndIsRefusedWhileRecording)
{
    PipeWireServer pipewire;
    ASSERT_TRUE(pipewire.isUp()) << pipewire.trouble();
    extraEnv = {"PIPEWIRE_RUNTIME_DIR=" + pipewire.runtimeDir().string()};
    rememberChoice(0, ", \"recordSubject\": \"area\", \"recordArea\": [0, 0, 320, 200]");
    auto app = startApp({"--show"});
    auto menu = [&](const char* item) {
        return runCommand({"xdotool", "search", "--onlyvisible", "--name", "^Plim$", "windowfocus", "--sync", "%1",
                              "key", "--delay", "300", "alt+f", item},
            env());
    };
    // Once only: a second Go Live leaves the File menu open (its item is off while live), and
    // the open menu holds the pointer, so the click on Stop Live below would only close it.
    ASSERT_TRUE(eventually([&] { return showing("^Plim$"); }, 60)) << appErrors();
    ASSERT_EQ(menu("g").status, 0) << appErrors();
    std::string bar;
    ASSERT_TRUE(eventually([&] {
        bar = runCommand({"xdotool", "search", "--onlyvisible", "--name", "^Plim live stream$"}, env()).out;
        return !bar.empty();
    }, 30)) << appErrors();
    bar = bar.substr(0, bar.find('\n'));
    // The bar keeps its lower right corner as its lines come and go: where it is now.
    int x = 0, y = 0, width = 0, height = 0;
    auto place = [&] {
        std::smatch at;
        const std::string geometry = runCommand({"xdotool", "getwindowgeometry", bar}, env()).out;
        ASSERT_TRUE(std::regex_search(geometry, at, std::regex(R"(Position: (\d+),(\d+)[^G]*Geometry: (\d+)x(\d+))")))
            << geometry;
        x = std::stoi(at[1]), y = std::stoi(at[2]), width = std::stoi(at[3]), height = std::stoi(at[4]);
    };
    place();
    // The left of the screen turns green; the bar, at the right, shows it in its picture.
    const uint32_t green = 0x20a050;
    TestWindow screen(xvfb.display(), 0, 0, 880, 720, green);
    ASSERT_LT(880, x);
    auto grab = [&](const std::string& file, const std::string& format) {
        return runCommand({"ffmpeg", "-v", "error", "-y", "-f", "x11grab", "-video_size",
                              std::to_string(width) + "x" + std::to_string(height), "-i",
                              xvfb.display() + "+" + std::to_string(x) + "," + std::to_string(y), "-frames:v", "1",
                              "-pix_fmt", format, (logs / file).string()},
            env());
    };
    size_t greenPixels = 0;
    const bool shown = eventually([&] {
        place();
        if (grab("bar.rgb", "rgb24").status != 0)
            return false;
        const std::string pixels = readText(logs / "bar.rgb");
        greenPixels = 0;
        for (size_t i = 0; i + 2 < pixels.size(); i += 3)
            greenPixels += std::abs(uint8_t(pixels[i]) - 0x20) + std::abs(uint8_t(pixels[i + 1]) - 0xa0)
                    + std::abs(uint8_t(pixels[i + 2]) - 0x50)
                < 40;
        return greenPixels > 4000;
    }, 60);
    if (const char* folder = std::getenv("PLIM_UI_SHOTS"); folder && grab("live-bar.png", "rgb24").status == 0)
        fs::copy_file(logs / "live-bar.png", fs::path(folder) / "live-bar.png", fs::copy_options::overwrite_existing);
    ASSERT_TRUE(shown) << greenPixels << " green pixels in the live bar\n" << appErrors();

    // Stop Live, at the right of the bar's top row, clicked with the pointer ends the run.
    place();
    ASSERT_EQ(runCommand({"xdotool", "mousemove", std::to_string(x + width - 30), std::to_string(y + 18), "click", "1"},
                  env()).status,
        0);
    ASSERT_TRUE(eventually([&] { return !showing("^Plim live stream$"); }, 30)) << appErrors();

    EXPECT_EQ(plim("--toggle").status, 0);
    ASSERT_TRUE(eventually([&] { return files(".rolling.json").size() == 1; }, 60)) << appErrors();
    ASSERT_EQ(menu("g").status, 0);
    EXPECT_TRUE(eventually([&] { return showing("^Plim Live$"); }, 20)) << appErrors();
    EXPECT_THAT(appErrors(),
        HasSubstr("A plim is rolling. Stop it first, then go live. The stream and the recording share one capture."));
    EXPECT_FALSE(showing("^Plim live stream$"));
    EXPECT_EQ(plim("--stop").status, 0);
    expectFinishedPlim(1, "320,200");
}

TEST(LiveBarPlace, StaysOnADisplayAndOutOfTheRecordedPicture)
{
    const std::vector<Rect> one{{0, 0, 1280, 720}}, two{{0, 0, 1280, 720}, {1280, 0, 1920, 1080}};
    EXPECT_EQ(liveBarPlace({100, 100, 400, 300}, false, one, 420, 40), (Rect{90, 412, 420, 40}));
    // No room below: above. At the display's left edge the bar is pulled onto the display.
    EXPECT_EQ(liveBarPlace({0, 400, 100, 320}, false, one, 420, 40), (Rect{0, 348, 420, 40}));
    // An area filling its display, or a whole display, leaves only another display.
    for (bool wholeDisplay : {false, true}) {
        auto other = liveBarPlace({0, 0, 1280, 720}, wholeDisplay, two, 420, 40);
        ASSERT_TRUE(other);
        EXPECT_GE(other->x, 1280);
    }
    EXPECT_FALSE(liveBarPlace({0, 0, 1280, 720}, true, one, 420, 40));
}

} // namespace
