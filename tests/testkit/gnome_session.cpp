#include "testkit/gnome_session.h"

#include "testkit/servers.h"

#include <sdbus-c++/sdbus-c++.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>

namespace plim::testkit {

namespace {

constexpr const char* nobody = "65534";

std::string newUuid()
{
    std::ifstream in("/proc/sys/kernel/random/uuid");
    std::string uuid;
    std::getline(in, uuid);
    return uuid;
}

} // namespace

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
        call("Start");
    }
    ~RemoteDesktop()
    {
        try {
            call("Stop");
        } catch (const sdbus::Error&) {
        }
    }
    template<typename... Args>
    void call(const std::string& method, Args... args)
    {
        session->callMethod(method).onInterface("org.gnome.Mutter.RemoteDesktop.Session").withArguments(args...);
    }
};

GnomeSession::GnomeSession(const std::string& monitor)
{
    if (auto missing = missingProgram({"mutter", "pipewire", "wireplumber", "dbus-daemon", "gdbus",
            "/usr/libexec/xdg-desktop-portal", "/usr/libexec/xdg-desktop-portal-gnome", "/usr/libexec/xdg-permission-store"})) {
        m_trouble = *missing;
        return;
    }
    m_runtime = m_dir / "run";
    m_home = m_dir / "home";
    if (auto why = foldersForNobody(m_dir.path(), {m_runtime, m_home})) {
        m_trouble = *why;
        return;
    }
    // The desktop's user owns the bus; root may join it.
    writeText(m_dir / "bus.conf",
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
        "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n<busconfig><type>session</type>"
        "<listen>unix:path=" + (m_runtime / "bus").string() + "</listen><auth>EXTERNAL</auth>"
        "<policy context=\"default\"><allow user=\"root\"/><allow send_destination=\"*\" eavesdrop=\"true\"/>"
        "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n");

    auto step = [&](const std::string& name, std::vector<std::string> argv, const std::function<bool()>& ready) {
        m_processes.push_back(start(name, std::move(argv)));
        if (!eventually(ready, 15)) {
            m_trouble = name + " did not start: " + readText(m_dir / (name + ".log"));
            return false;
        }
        return true;
    };
    auto socket = [&](const char* name) { return [this, name] { return fs::exists(m_runtime / name); }; };
    if (!step("dbus-daemon", {"dbus-daemon", "--nofork", "--config-file=" + (m_dir / "bus.conf").string()}, socket("bus"))
        || !step("pipewire", {"pipewire"}, socket("pipewire-0"))
        || !step("wireplumber", {"wireplumber"}, [] { return true; })
        || !step("mutter", {"mutter", "--headless", "--wayland", "--no-x11", "--virtual-monitor", monitor},
            [&] { return waitForName("org.gnome.Mutter.ScreenCast") && waitForName("org.gnome.Mutter.RemoteDesktop"); })
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
        m_remote = std::make_unique<RemoteDesktop>("unix:path=" + (m_runtime / "bus").string());
    } catch (const sdbus::Error& error) {
        m_trouble = "mutter's remote desktop session did not start: " + error.getMessage();
        return;
    }
    m_up = true;
}

GnomeSession::~GnomeSession()
{
    m_remote.reset();
    m_portal.reset();
    while (!m_processes.empty())
        m_processes.pop_back();
}

std::vector<std::string> GnomeSession::environment() const
{
    return {"XDG_RUNTIME_DIR=" + m_runtime.string(), "DBUS_SESSION_BUS_ADDRESS=unix:path=" + (m_runtime / "bus").string(),
        "WAYLAND_DISPLAY=wayland-0", "XDG_CURRENT_DESKTOP=GNOME", "XDG_SESSION_TYPE=wayland"};
}

std::unique_ptr<ChildProcess> GnomeSession::start(const std::string& name, std::vector<std::string> argv,
    std::vector<std::string> extraEnv)
{
    std::vector<std::string> env{"XDG_RUNTIME_DIR=" + m_runtime.string(), "HOME=" + m_home.string(),
        "XDG_CONFIG_HOME=" + (m_home / ".config").string(), "XDG_DATA_HOME=" + (m_home / ".local/share").string(),
        "XDG_CACHE_HOME=" + (m_home / ".cache").string(), "XDG_STATE_HOME=" + (m_home / ".local/state").string(),
        "DBUS_SESSION_BUS_ADDRESS=unix:path=" + (m_runtime / "bus").string(), "WAYLAND_DISPLAY=wayland-0",
        "XDG_CURRENT_DESKTOP=GNOME", "GSETTINGS_BACKEND=memory", "PATH=/usr/bin:/bin"};
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    // setpriv and env exec, so the pid is the program's own.
    std::vector<std::string> full;
    if (geteuid() == 0)
        full = {"setpriv", std::string("--reuid=") + nobody, std::string("--regid=") + nobody, "--clear-groups",
            "--reset-env", "env"};
    else
        full = {"env", "-i"};
    full.insert(full.end(), env.begin(), env.end());
    full.insert(full.end(), argv.begin(), argv.end());
    return std::make_unique<ChildProcess>(full, std::vector<std::string>{}, "/dev/null", m_dir / (name + ".log"));
}

std::vector<std::string> GnomeSession::asUser(std::vector<std::string> argv) const
{
    if (geteuid() == 0)
        argv.insert(argv.begin(), {"setpriv", std::string("--reuid=") + nobody, std::string("--regid=") + nobody,
                                      "--clear-groups", "--"});
    return argv;
}

void GnomeSession::handOver(const fs::path& folder) const
{
    if (geteuid() != 0)
        return;
    std::error_code ec;
    if (chown(folder.c_str(), 65534, 65534) != 0)
        return;
    for (const auto& entry : fs::recursive_directory_iterator(folder, ec))
        if (chown(entry.path().c_str(), 65534, 65534) != 0)
            return;
}

bool GnomeSession::waitForName(const std::string& name)
{
    return runCommand({"gdbus", "wait", "--session", "--timeout", "15", name}, environment()).status == 0;
}

void GnomeSession::startClient(const std::vector<std::string>& argv)
{
    m_processes.push_back(start("client" + std::to_string(m_processes.size()), argv));
}

std::string GnomeSession::grantScreenCast()
{
    const std::string token = newUuid();
    const long long now = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now().time_since_epoch()).count();
    const std::vector<std::string> call{"gdbus", "call", "--session", "-d", "org.freedesktop.impl.portal.PermissionStore",
        "-o", "/org/freedesktop/impl/portal/PermissionStore", "-m"};
    auto withArgs = [&](std::vector<std::string> args) {
        std::vector<std::string> argv = call;
        argv.insert(argv.end(), args.begin(), args.end());
        return runCommand(argv, environment()).status == 0;
    };
    const std::string at = std::to_string(now);
    if (!withArgs({"org.freedesktop.impl.portal.PermissionStore.SetPermission", "screencast", "true", token, "", "['yes']"})
        || !withArgs({"org.freedesktop.impl.portal.PermissionStore.SetValue", "screencast", "true", token,
            "<('GNOME', uint32 1, <(int64 " + at + ", int64 " + at
                + ", [(uint32 0, uint32 1, <'MetaVendor:MetaVirtualMonitor:0x00'>)])>)>"}))
        return {};
    return token;
}

bool GnomeSession::movePointer(double x, double y)
{
    try {
        m_remote->call("NotifyPointerMotionRelative", -100000.0, -100000.0);
        m_remote->call("NotifyPointerMotionRelative", x, y);
        return true;
    } catch (const sdbus::Error&) {
        return false;
    }
}

bool GnomeSession::click()
{
    constexpr int32_t leftButton = 0x110; // BTN_LEFT
    try {
        m_remote->call("NotifyPointerButton", leftButton, true);
        m_remote->call("NotifyPointerButton", leftButton, false);
        return true;
    } catch (const sdbus::Error&) {
        return false;
    }
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
