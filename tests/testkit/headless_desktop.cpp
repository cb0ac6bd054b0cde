#include "testkit/headless_desktop.h"

#include "testkit/servers.h"

#include <unistd.h>

#include <cstdlib>

namespace plim::testkit {

HeadlessDesktop::HeadlessDesktop()
{
    m_runtime = m_dir / "run";
    m_home = m_dir / "home";
    if (auto why = foldersForNobody(m_dir.path(), {m_runtime, m_home}))
        m_trouble = *why;
}

HeadlessDesktop::~HeadlessDesktop()
{
    while (!m_processes.empty())
        m_processes.pop_back();
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
    const auto env = environment();
    full.insert(full.end(), env.begin(), env.end());
    full.insert(full.end(), extraEnv.begin(), extraEnv.end());
    full.insert(full.end(), argv.begin(), argv.end());
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

bool HeadlessDesktop::startBus()
{
    // The desktop's user owns the bus; root may join it.
    writeText(m_dir / "bus.conf",
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
        "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n<busconfig><type>session</type>"
        "<listen>unix:path=" + (m_runtime / "bus").string() + "</listen><auth>EXTERNAL</auth>"
        "<policy context=\"default\"><allow user=\"root\"/><allow send_destination=\"*\" eavesdrop=\"true\"/>"
        "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n");
    return step("dbus-daemon", {"dbus-daemon", "--nofork", "--config-file=" + (m_dir / "bus.conf").string()},
        [this] { return fs::exists(m_runtime / "bus"); });
}

bool HeadlessDesktop::waitForName(const std::string& name) const
{
    return runCommand({"gdbus", "wait", "--session", "--timeout", "15", name}, environment()).status == 0;
}

void HeadlessDesktop::startClient(const std::vector<std::string>& argv)
{
    m_processes.push_back(start("client" + std::to_string(m_processes.size()), argv));
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
