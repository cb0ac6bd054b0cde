#include "testkit/servers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace plim::testkit {

namespace {

void pause(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

} // namespace

XvfbServer::XvfbServer(const std::string& size)
{
    for (int attempt = 0; attempt < 8 && !m_up; ++attempt) {
        int number = 100 + (getpid() * 7 + attempt * 97) % 800;
        if (fs::exists("/tmp/.X11-unix/X" + std::to_string(number)) || fs::exists("/tmp/.X" + std::to_string(number) + "-lock"))
            continue;
        m_display = ":" + std::to_string(number);
        m_process = std::make_unique<ChildProcess>(
            std::vector<std::string>{"Xvfb", m_display, "-nolisten", "tcp", "-noreset", "-screen", "0", size, "+extension", "Composite"},
            std::vector<std::string>{}, "/dev/null", "/dev/null");
        for (int i = 0; i < 100 && !m_up; ++i) {
            pause(50);
            m_up = runCommand({"xdpyinfo", "-display", m_display}).status == 0;
        }
        if (!m_up)
            m_process.reset();
    }
}

XvfbServer::~XvfbServer() { m_process.reset(); }

PulseServer::PulseServer()
{
    auto env = environment();
    env.push_back("HOME=" + m_dir.path().string());
    m_process = std::make_unique<ChildProcess>(
        std::vector<std::string>{"pulseaudio", "--daemonize=no", "-n", "--exit-idle-time=-1", "--disable-shm",
            "--load=module-null-sink sink_name=plimsink", "--load=module-native-protocol-unix",
            "--load=module-always-sink"},
        env, "/dev/null", (m_dir.path() / "pulse.log").string());
    for (int i = 0; i < 100 && !m_up; ++i) {
        pause(50);
        m_up = runCommand({"pactl", "info"}, env).status == 0;
    }
}

PulseServer::~PulseServer() { m_process.reset(); }

std::vector<std::string> PulseServer::environment() const
{
    return {"XDG_RUNTIME_DIR=" + m_dir.path().string(), "PULSE_RUNTIME_PATH=" + m_dir.path().string(),
        "PULSE_SERVER=unix:" + (m_dir.path() / "native").string()};
}

} // namespace plim::testkit
