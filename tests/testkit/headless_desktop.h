#pragma once
// What the headless Wayland desktops of the portal tests share: a folder holding a private
// runtime folder and a home, a session bus of their own (a dbus-daemon with no service
// folder, so nothing starts behind the test's back; root may join it, so the test and plimctl
// can call the portal), a system bus beside it for a desktop that wants one, and processes
// started in order and stopped by process id in reverse. Under root every process runs as
// `nobody`.

#include "testkit/testkit.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace sdbus {
class Variant;
}

namespace plim::testkit {

class HeadlessDesktop {
public:
    bool isUp() const { return m_up; }
    // Why it is not up, for the skip.
    const std::string& trouble() const { return m_trouble; }
    const fs::path& folder() const { return m_dir.path(); }
    // The variables a client of this desktop needs (bus, runtime folder, Wayland socket).
    std::vector<std::string> environment() const;
    enum class Bus { session, system };
    std::string busAddress(Bus bus = Bus::session) const;

    // Starts `argv` as the desktop's user, stopped with the desktop.
    ChildProcess& startClient(const std::vector<std::string>& argv);
    // `argv` run as the desktop's user (the portal tells apps apart by their processes, which
    // it must be able to read), with the caller's environment.
    std::vector<std::string> asUser(std::vector<std::string> argv) const;
    // Hands `folder` and what it holds to the desktop's user.
    void handOver(const fs::path& folder) const;

protected:
    // Makes the folders; on failure not up, with the trouble said. `desktop` is what
    // XDG_CURRENT_DESKTOP names.
    explicit HeadlessDesktop(std::string desktop);
    virtual ~HeadlessDesktop();

    // `argv` started as the desktop's user with the desktop's environment, m_serverEnv and
    // `extraEnv`; its output goes to `name`.log in the folder.
    std::unique_ptr<ChildProcess> start(const std::string& name, std::vector<std::string> argv,
        const std::vector<std::string>& extraEnv = {});
    // Starts `argv` and keeps it with the desktop, then waits for `ready`: false, with the
    // program's output as the trouble, when it does not come.
    bool step(const std::string& name, std::vector<std::string> argv, const std::function<bool()>& ready);
    // Starts the bus and waits for its socket. The system bus's address goes to every
    // process started after it.
    bool startBus(Bus bus = Bus::session);
    bool waitForName(const std::string& name) const;
    // Seeds the permission store with a screen cast granted with `data` (the portal backend's
    // own restore data), as an earlier choice in the desktop's dialog would have, and returns
    // its restore token; empty when the store refused.
    std::string seedGrant(const sdbus::Variant& data) const;

    TempDir m_dir;
    fs::path m_runtime = m_dir / "run", m_home = m_dir / "home";
    std::string m_desktop;
    std::vector<std::string> m_serverEnv; // for the desktop's own processes, not its clients
    std::vector<std::unique_ptr<ChildProcess>> m_processes; // in start order; stopped in reverse
    bool m_up = false;
    std::string m_trouble;
};

// What plimctl record's last lines say of the movie it kept: "(4.04 s, 1280 x 800, 112 frames,
// 0 dropped)"; -1 and 0 where they are missing.
struct RecordedSummary {
    int dropped = -1;
    double seconds = 0;
};
RecordedSummary recordedSummary(const std::string& err);

} // namespace plim::testkit
