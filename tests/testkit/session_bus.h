#pragma once
// A private session bus for one test: a dbus-daemon listening on a socket in its own
// temporary folder, named by DBUS_SESSION_BUS_ADDRESS while it lives, and stopped by
// its process id.

#include "testkit/testkit.h"

#include <memory>

namespace plim::testkit {

class TestSessionBus {
public:
    TestSessionBus();
    bool ready() const { return !m_address.empty(); }
    const std::string& address() const { return m_address; }
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
