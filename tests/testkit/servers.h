#pragma once
// Real servers for capture tests, each on its own display number or socket in a temporary
// folder, stopped by process id: an X server (Xvfb) and a sound server (PulseAudio with a
// null sink called "plimsink").

#include "testkit/testkit.h"

#include <memory>
#include <string>
#include <vector>

namespace plim::testkit {

class XvfbServer {
public:
    // Picks a free display number from the process id; `size` is "WIDTHxHEIGHTxDEPTH".
    explicit XvfbServer(const std::string& size = "1280x720x24");
    ~XvfbServer();
    bool isUp() const { return m_up; }
    const std::string& display() const { return m_display; } // ":N"
    // Ends the server now, as a crash or a logout would.
    void stop() { m_process.reset(); }

private:
    std::string m_display;
    std::unique_ptr<ChildProcess> m_process;
    bool m_up = false;
};

class PulseServer {
public:
    PulseServer();
    ~PulseServer();
    bool isUp() const { return m_up; }
    // XDG_RUNTIME_DIR and PULSE_RUNTIME_PATH for clients of this server.
    std::vector<std::string> environment() const;
    const fs::path& runtimeDir() const { return m_dir.path(); }

private:
    TempDir m_dir;
    std::unique_ptr<ChildProcess> m_process;
    bool m_up = false;
};

} // namespace plim::testkit
