#include "testkit/session_bus.h"


namespace plim::testkit {

TestSessionBus::TestSessionBus()
    : m_daemon({"dbus-daemon", "--session", "--nofork", "--address=unix:path=" + (m_dir / "bus").string(),
                   "--print-address"},
          {}, m_dir / "address", m_dir / "daemon.err")
{
    eventually([&] { return readText(m_dir / "address").find('\n') != std::string::npos; });
    std::string printed = readText(m_dir / "address");
    m_address = printed.substr(0, printed.find('\n'));
    if (!m_address.empty())
        m_env = std::make_unique<ScopedEnv>("DBUS_SESSION_BUS_ADDRESS", m_address);
}

} // namespace plim::testkit
