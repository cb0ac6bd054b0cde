#pragma once
// A private session bus for one test: a dbus-daemon listening on a socket in its own
// temporary folder, named by DBUS_SESSION_BUS_ADDRESS while it lives, and stopped by
// its process id.

#include "testkit/testkit.h"

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

namespace plim::testkit {

// Polls `done` until it holds or a generous deadline passes (a safety net for a broken
// run, not a measurement).
inline bool eventually(const std::function<bool()>& done)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return done();
}

class TestSessionBus {
public:
    TestSessionBus()
        : m_daemon({"dbus-daemon", "--session", "--nofork", "--address=unix:path=" + (m_dir / "bus").string(),
                       "--print-address"},
              {}, m_dir / "address", m_dir / "daemon.err")
    {
        eventually([&] { return readText(m_dir / "address").find('\n') != std::string::npos; });
        m_address = readText(m_dir / "address").substr(0, readText(m_dir / "address").find('\n'));
        if (!m_address.empty())
            m_env = std::make_unique<ScopedEnv>("DBUS_SESSION_BUS_ADDRESS", m_address);
    }
    bool ready() const { return !m_address.empty(); }
    std::string daemonErrors() const { return readText(m_dir / "daemon.err"); }
    const fs::path& folder() const { return m_dir.path(); }
    void stop() { m_daemon.terminate(); }

private:
    TempDir m_dir;
    ChildProcess m_daemon;
    std::string m_address;
    std::unique_ptr<ScopedEnv> m_env;
};

} // namespace plim::testkit
