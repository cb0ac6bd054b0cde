#include "testkit/headless_desktop.h"

#include "testkit/servers.h"

#include <sdbus-c++/sdbus-c++.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace plim::testkit {

HeadlessDesktop::HeadlessDesktop(std::string desktop)
    : m_desktop(std::move(desktop))
{
    if (auto why = foldersForNobody(m_dir.path(), {m_runtime, m_home}))
        m_trouble = *why;
}

HeadlessDesktop::~HeadlessDesktop()
{
    while (!m_processes.empty())
        m_processes.pop_back();
}

std::vector<std::string> HeadlessDesktop::environment() const
{
    return {"XDG_RUNTIME_DIR=" + m_runtime.string(), "DBUS_SESSION_BUS_ADDRESS=" + busAddress(),
        "WAYLAND_DISPLAY=wayland-0", "XDG_CURRENT_DESKTOP=" + m_desktop, "XDG_SESSION_TYPE=wayland"};
}

std::string HeadlessDesktop::busAddress(Bus bus) const
{
    return "unix:path=" + (m_runtime / (bus == Bus::session ? "bus" : "system_bus")).string();
}

std::unique_ptr<ChildProcess> HeadlessDesktop::start(const std::string& name, std::vector<std::string> argv,
    const std::vector<std::string>& extraEnv)
{
    // setpriv and env exec, so the pid is the program's own.
    std::vector<std::string> full{"env", "-i"};
    if (geteuid() == 0)
        full = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--reset-env", "env"};
    full.insert(full.end(), {"HOME=" + m_home.string(), "XDG_CONFIG_HOME=" + (m_home / ".config").string(),
        "XDG_DATA_HOME=" + (m_home / ".local/share").string(), "XDG_CACHE_HOME=" + (m_home / ".cache").string(),
        "XDG_STATE_HOME=" + (m_home / ".local/state").string(), "PATH=/usr/bin:/bin"});
    for (const auto& part : {environment(), m_serverEnv, extraEnv, argv})
        full.insert(full.end(), part.begin(), part.end());
    return std::make_unique<ChildProcess>(full, std::vector<std::string>{}, "/dev/null", m_dir / (name + ".log"));
}

bool HeadlessDesktop::step(const std::string& name, std::vector<std::string> argv, const std::function<bool()>& ready)
{
    m_processes.push_back(start(name, std::move(argv)));
    if (eventually(ready, 15))
        return true;
    m_trouble = name + " did not start: " + readText(m_dir / (name + ".log"));
    return false;
}

bool HeadlessDesktop::startBus(Bus bus)
{
    // The desktop's user owns the bus; root may join it.
    const std::string type = bus == Bus::session ? "session" : "system";
    const std::string address = busAddress(bus);
    const fs::path config = m_dir / (type + ".conf");
    writeText(config,
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
        "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n<busconfig><type>" + type + "</type>"
        "<listen>" + address + "</listen><auth>EXTERNAL</auth>"
        "<policy context=\"default\"><allow user=\"root\"/><allow send_destination=\"*\" eavesdrop=\"true\"/>"
        "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n");
    const fs::path socket = address.substr(10);
    if (!step(bus == Bus::session ? "dbus-daemon" : "system-bus",
            {"dbus-daemon", "--nofork", "--config-file=" + config.string()}, [socket] { return fs::exists(socket); }))
        return false;
    if (bus == Bus::system)
        m_serverEnv.push_back("DBUS_SYSTEM_BUS_ADDRESS=" + address);
    return true;
}

bool HeadlessDesktop::waitForName(const std::string& name) const
{
    return runCommand({"gdbus", "wait", "--session", "--timeout", "15", name}, environment()).status == 0;
}

std::string HeadlessDesktop::seedGrant(const sdbus::Variant& data) const
{
    std::string token;
    std::getline(std::ifstream("/proc/sys/kernel/random/uuid"), token);
    try {
        auto connection = sdbus::createSessionBusConnectionWithAddress(busAddress());
        const char* store = "org.freedesktop.impl.portal.PermissionStore";
        auto proxy = sdbus::createProxy(*connection, store, "/org/freedesktop/impl/portal/PermissionStore");
        proxy->callMethod("SetPermission")
            .onInterface(store)
            .withArguments("screencast", true, token, "", std::vector<std::string>{"yes"});
        proxy->callMethod("SetValue").onInterface(store).withArguments("screencast", true, token, data);
    } catch (const sdbus::Error&) {
        return {};
    }
    return token;
}

ChildProcess& HeadlessDesktop::startClient(const std::vector<std::string>& argv)
{
    m_processes.push_back(start("client" + std::to_string(m_processes.size()), argv));
    return *m_processes.back();
}

std::vector<std::string> HeadlessDesktop::asUser(std::vector<std::string> argv) const
{
    if (geteuid() == 0)
        argv.insert(argv.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"});
    return argv;
}

void HeadlessDesktop::handOver(const fs::path& folder) const
{
    if (geteuid() != 0 || chown(folder.c_str(), 65534, 65534) != 0)
        return;
    std::error_code ec;
    for (const auto& entry : fs::recursive_directory_iterator(folder, ec))
        if (chown(entry.path().c_str(), 65534, 65534) != 0)
            return;
}

RecordedSummary recordedSummary(const std::string& err)
{
    RecordedSummary summary;
    if (auto at = err.find(" frames, "); at != std::string::npos)
        summary.dropped = std::atoi(err.c_str() + at + 9);
    if (auto at = err.find(".mov ("); at != std::string::npos)
        summary.seconds = std::atof(err.c_str() + at + 6);
    return summary;
}

} // namespace plim::testkit
