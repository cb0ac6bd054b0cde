#include "testkit/gnome_session.h"

#include "testkit/servers.h"

#include <sdbus-c++/sdbus-c++.h>

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <sstream>

namespace plim::testkit {

// Mutter's RemoteDesktop session over a connection of its own: mutter ends the session
// when the connection that made it goes away.
struct GnomeSession::RemoteDesktop {
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IProxy> session;

    explicit RemoteDesktop(const std::string& address)
    {
        connection = sdbus::createSessionBusConnectionWithAddress(address);
        auto desktop = sdbus::createProxy(*connection, "org.gnome.Mutter.RemoteDesktop", "/org/gnome/Mutter/RemoteDesktop");
        sdbus::ObjectPath path;
        desktop->callMethod("CreateSession").onInterface("org.gnome.Mutter.RemoteDesktop").storeResultsTo(path);
        session = sdbus::createProxy(*connection, "org.gnome.Mutter.RemoteDesktop", path);
        session->callMethod("Start").onInterface(interface);
    }
    ~RemoteDesktop() { call("Stop"); }
    // False when the session refused.
    template<typename... Args> bool call(const std::string& method, Args... args)
    {
        try {
            session->callMethod(method).onInterface(interface).withArguments(args...);
            return true;
        } catch (const sdbus::Error&) {
            return false;
        }
    }
    static constexpr const char* interface = "org.gnome.Mutter.RemoteDesktop.Session";
};

// A property of a window the shell lists; T() when it has none of that type.
template<typename T> static T property(const std::map<std::string, sdbus::Variant>& properties, const char* key)
{
    auto found = properties.find(key);
    return found != properties.end() && found->second.containsValueOfType<T>() ? found->second.get<T>() : T();
}

GnomeSession::GnomeSession(const std::string& monitor, Compositor compositor)
    : HeadlessDesktop("GNOME")
{
    const bool shell = compositor == Compositor::shell;
    const char* compositorName = shell ? "gnome-shell" : "mutter";
    if (auto missing = missingProgram({compositorName, "pipewire", "wireplumber", "dbus-daemon", "gdbus",
            "/usr/libexec/xdg-desktop-portal", "/usr/libexec/xdg-desktop-portal-gnome", "/usr/libexec/xdg-permission-store"}))
        m_trouble = *missing;
    if (!m_trouble.empty())
        return;
    m_serverEnv.push_back("GSETTINGS_BACKEND=memory");
    if (!startBus() || (shell && !startBus(Bus::system))
        || !step("pipewire", {"pipewire"}, [&] { return fs::exists(m_runtime / "pipewire-0"); })
        || !step("wireplumber", {"wireplumber"}, [] { return true; })
        || !step(compositorName, {compositorName, "--headless", "--wayland", "--no-x11", "--virtual-monitor", monitor},
            [&] {
                return waitForName("org.gnome.Mutter.ScreenCast") && waitForName("org.gnome.Mutter.RemoteDesktop")
                    && (!shell || (waitForName("org.gnome.Shell.Introspect") && shellAnswers(m_processes.back()->pid())));
            })
        || !step("permission-store", {"/usr/libexec/xdg-permission-store"},
            [&] { return waitForName("org.freedesktop.impl.portal.PermissionStore"); })
        || !step("portal-gnome", {"env", "GTK_A11Y=none", "/usr/libexec/xdg-desktop-portal-gnome"},
            [&] { return waitForName("org.freedesktop.impl.portal.desktop.gnome"); }))
        return;
    m_portal = start("portal", {"/usr/libexec/xdg-desktop-portal"});
    if (!waitForName("org.freedesktop.portal.Desktop")) {
        m_trouble = "xdg-desktop-portal did not start: " + readText(m_dir / "portal.log");
        return;
    }
    try {
        m_remote = std::make_unique<RemoteDesktop>(busAddress());
    } catch (const sdbus::Error& error) {
        m_trouble = "mutter's remote desktop session did not start: " + error.getMessage();
        return;
    }
    m_up = true;
}

GnomeSession::~GnomeSession() = default;

// gnome-shell starts ibus-daemon through a fork that runs script code before its exec; a
// fork made while another of the shell's threads holds a lock hangs there, and the shell,
// which waits for the exec, with it. Such a fork is ended: the shell goes on as if the
// daemon had quit.
bool GnomeSession::shellAnswers(int shell)
{
    if (runCommand({"gdbus", "call", "--session", "--timeout", "2", "-d", "org.gnome.Mutter.DisplayConfig", "-o",
            "/org/gnome/Mutter/DisplayConfig", "-m", "org.gnome.Mutter.DisplayConfig.GetCurrentState"}, environment())
            .status == 0)
        return true;
    std::error_code ec;
    const fs::path program = fs::read_symlink("/proc/" + std::to_string(shell) + "/exe", ec);
    for (const auto& entry : fs::directory_iterator("/proc", ec)) {
        const std::string pid = entry.path().filename();
        if (program.empty() || pid.find_first_not_of("0123456789") != std::string::npos)
            continue;
        // "pid (name) state parent ..."
        const std::string stat = readText(entry.path() / "stat");
        const auto nameEnd = stat.rfind(") ");
        if (nameEnd == std::string::npos || std::atoi(stat.c_str() + nameEnd + 4) != shell)
            continue;
        std::error_code gone;
        if (fs::read_symlink(entry.path() / "exe", gone) == program)
            kill(std::stoi(pid), SIGKILL);
    }
    return false;
}

std::vector<GnomeSession::Window> GnomeSession::windows()
{
    // The shell lists its windows only to the portal backends: this connection takes the
    // name of the GTK one, which this desktop does not run.
    using Properties = std::map<std::string, sdbus::Variant>;
    std::vector<Window> listed;
    try {
        if (!m_windowLister) {
            m_windowLister = sdbus::createSessionBusConnectionWithAddress(busAddress());
            m_windowLister->requestName("org.freedesktop.impl.portal.desktop.gtk");
        }
        auto shell = sdbus::createProxy(*m_windowLister, "org.gnome.Shell.Introspect", "/org/gnome/Shell/Introspect");
        std::map<uint64_t, Properties> windows;
        shell->callMethod("GetWindows").onInterface("org.gnome.Shell.Introspect").storeResultsTo(windows);
        for (auto& [id, properties] : windows)
            listed.push_back({property<std::string>(properties, "app-id"), property<std::string>(properties, "title"),
                int(property<uint32_t>(properties, "width")), int(property<uint32_t>(properties, "height"))});
    } catch (const sdbus::Error&) {
        listed.clear();
    }
    return listed;
}

std::string GnomeSession::grantScreenCast()
{
    return grant(1, sdbus::Variant(std::string("MetaVendor:MetaVirtualMonitor:0x00")));
}

std::string GnomeSession::grantWindowCast(const Window& window)
{
    return grant(2, sdbus::Variant(sdbus::Struct<std::string, std::string>{window.appId, window.title}));
}

// The GNOME portal's restore data: ("GNOME", 1, <(granted, last used, [(stream, `type`, `source`)])>),
// `source` being what identifies a monitor (type 1) or a window (type 2).
std::string GnomeSession::grant(uint32_t type, const sdbus::Variant& source)
{
    const int64_t now
        = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
              .count();
    using Stream = sdbus::Struct<uint32_t, uint32_t, sdbus::Variant>;
    const sdbus::Variant streams(
        sdbus::Struct<int64_t, int64_t, std::vector<Stream>>{now, now, {Stream{0u, type, source}}});
    return seedGrant(sdbus::Variant(sdbus::Struct<std::string, uint32_t, sdbus::Variant>{"GNOME", 1u, streams}));
}

bool GnomeSession::movePointer(double x, double y)
{
    return m_remote->call("NotifyPointerMotionRelative", -100000.0, -100000.0)
        && m_remote->call("NotifyPointerMotionRelative", x, y);
}

bool GnomeSession::click()
{
    constexpr int32_t leftButton = 0x110; // BTN_LEFT
    return m_remote->call("NotifyPointerButton", leftButton, true)
        && m_remote->call("NotifyPointerButton", leftButton, false);
}

void GnomeSession::stopPortal() { m_portal.reset(); }

bool GnomeSession::stopScreenCasts()
{
    // Mutter stops a cast only for the connection that made it: the GNOME portal, which
    // closes its sessions when asked on its own interface.
    const std::string backend = "org.freedesktop.impl.portal.desktop.gnome";
    auto listed = runCommand({"gdbus", "introspect", "--session", "-r", "-d", backend, "-o",
        "/org/freedesktop/portal/desktop/session"}, environment());
    int stopped = 0;
    std::istringstream lines(listed.out);
    for (std::string line; std::getline(lines, line);) {
        const auto node = line.find("node /");
        if (node == std::string::npos || std::count(line.begin(), line.end(), '/') != 7)
            continue;
        const std::string path = line.substr(node + 5, line.find_first_of(" {", node + 5) - node - 5);
        auto closed = runCommand({"gdbus", "call", "--session", "-d", backend, "-o", path, "-m",
            "org.freedesktop.impl.portal.Session.Close"}, environment());
        stopped += closed.status == 0;
    }
    return stopped > 0;
}

bool GnomeSession::restartPortal(const fs::path& backends)
{
    m_portal.reset();
    m_portal = start("portal", {"/usr/libexec/xdg-desktop-portal", "--replace"},
        {"XDG_DESKTOP_PORTAL_DIR=" + backends.string()});
    return waitForName("org.freedesktop.portal.Desktop");
}

} // namespace plim::testkit
