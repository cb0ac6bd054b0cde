#include "testkit/session_bus.h"

#include <chrono>
#include <thread>

namespace plim::testkit {

bool eventually(const std::function<bool()>& done, double seconds)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return done();
}

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
