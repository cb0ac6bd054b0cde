#include "testkit/pipewire_server.h"

#include "testkit/servers.h"

namespace plim::testkit {

PipeWireServer::PipeWireServer()
{
    if (auto missing = missingProgram({"pipewire", "wireplumber", "pw-cli"})) {
        m_installed = false;
        m_trouble = *missing;
        return;
    }
    fs::permissions(m_dir.path(), fs::perms::owner_all);
    m_bus = std::make_unique<ChildProcess>(std::vector<std::string>{"dbus-daemon", "--session", "--nofork",
                                               "--address=unix:path=" + (m_dir / "bus").string()},
        std::vector<std::string>{}, "/dev/null", m_dir / "bus.log");
    if (!eventually([&] { return fs::exists(m_dir / "bus"); }, 10)) {
        m_trouble = "the session bus did not start: " + readText(m_dir / "bus.log");
        return;
    }
    std::vector<std::string> env = environment();
    for (const char* folder : {"HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"})
        env.push_back(std::string(folder) + "=" + (m_dir / "home").string());
    m_pipewire = std::make_unique<ChildProcess>(std::vector<std::string>{"pipewire"}, env, "/dev/null", m_dir / "pipewire.log");
    if (!eventually([&] { return fs::exists(m_dir / "pipewire-0"); }, 10)) {
        m_trouble = "pipewire did not start: " + readText(m_dir / "pipewire.log");
        return;
    }
    m_wireplumber = std::make_unique<ChildProcess>(std::vector<std::string>{"wireplumber"}, env, "/dev/null",
        m_dir / "wireplumber.log");
    // WirePlumber is ready to link streams once it has published the default-node metadata.
    m_up = eventually([&] { return runCommand({"pw-cli", "ls", "Metadata"}, env).out.find("\"default\"") != std::string::npos; }, 15);
    if (!m_up)
        m_trouble = "wireplumber did not start: " + readText(m_dir / "wireplumber.log");
}

std::vector<std::string> PipeWireServer::environment() const
{
    return {"XDG_RUNTIME_DIR=" + m_dir.path().string(), "PIPEWIRE_RUNTIME_DIR=" + m_dir.path().string(),
        "DBUS_SESSION_BUS_ADDRESS=unix:path=" + (m_dir / "bus").string()};
}

} // namespace plim::testkit
