#pragma once
// A real PipeWire for one test: pipewire and wireplumber on a runtime folder of their own,
// with a private session bus for wireplumber, each stopped by its process id.

#include "testkit/testkit.h"

#include <memory>
#include <string>
#include <vector>

namespace plim::testkit {

class PipeWireServer {
public:
    PipeWireServer();
    bool isUp() const { return m_up; }
    // Why it is not up, for the failure or the skip.
    const std::string& trouble() const { return m_trouble; }
    // False when pipewire or wireplumber is not installed (scripts/setup.sh installs them).
    bool installed() const { return m_installed; }
    // XDG_RUNTIME_DIR, PIPEWIRE_RUNTIME_DIR and the bus for PipeWire's clients.
    std::vector<std::string> environment() const;
    const fs::path& runtimeDir() const { return m_dir.path(); }
    // Ends pipewire now, as a crash would.
    void stopPipeWire() { m_pipewire.reset(); }

private:
    TempDir m_dir;
    std::unique_ptr<ChildProcess> m_bus, m_pipewire, m_wireplumber; // stopped in reverse
    bool m_installed = true;
    bool m_up = false;
    std::string m_trouble;
};

} // namespace plim::testkit
