#pragma once
// Real servers for capture tests, each on its own display number or socket in a temporary
// folder, stopped by process id: an X server (Xvfb), a sound server (PulseAudio with a
// null sink called "plimsink" whose monitor hears what is played within 100 ms) and a
// Wayland desktop (sway, headless).

#include "testkit/testkit.h"

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plim::testkit {

class XvfbServer {
public:
    // Picks a free display number from the process id; `size` is "WIDTHxHEIGHTxDEPTH".
    explicit XvfbServer(const std::string& size = "1280x720x24");
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
    bool isUp() const { return m_up; }
    // XDG_RUNTIME_DIR and PULSE_RUNTIME_PATH for clients of this server.
    std::vector<std::string> environment() const;
    const fs::path& runtimeDir() const { return m_dir.path(); }

private:
    TempDir m_dir;
    std::unique_ptr<ChildProcess> m_process;
    std::unique_ptr<ChildProcess> m_holder; // keeps the null sink's latency short; stopped first
    bool m_up = false;
};

// What a desktop test lacks: "PROGRAM is not installed (...)" for the first of `programs`
// not found on PATH; nothing when all are there.
std::optional<std::string> missingProgram(std::initializer_list<const char*> programs);
// Opens `dir` to others and makes its folders `made` (the first a private runtime folder),
// owned by nobody when run as root, for a desktop that runs as nobody; why not, if it fails.
std::optional<std::string> foldersForNobody(const fs::path& dir, std::initializer_list<fs::path> made);

// sway on a headless output HEADLESS-1 of `size` ("1280x720"), drawn by pixman, running
// `client` (a shell command line). sway refuses root, so under root it runs as `nobody`,
// whose runtime folder root may still reach.
class SwayServer {
public:
    SwayServer(const std::string& size, const std::string& client);
    ~SwayServer();
    bool isUp() const { return m_up; }
    // Why it is not up, for the skip.
    const std::string& trouble() const { return m_trouble; }
    // XDG_RUNTIME_DIR and WAYLAND_DISPLAY for its clients.
    std::vector<std::string> environment() const;
    const fs::path& runtimeDir() const { return m_runtime; }
    const std::string& socket() const { return m_socket; }
    int pid() const { return m_process ? m_process->pid() : -1; }

private:
    TempDir m_dir;
    fs::path m_runtime;
    std::string m_socket;
    std::unique_ptr<ChildProcess> m_process;
    bool m_up = false;
    std::string m_trouble;
};

} // namespace plim::testkit
