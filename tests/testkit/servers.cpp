#include "testkit/servers.h"

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
        m_up = eventually([&] { return runCommand({"xdpyinfo", "-display", m_display}).status == 0; }, 5);
        if (!m_up)
            m_process.reset();
    }
}

PulseServer::PulseServer()
{
    auto env = environment();
    env.push_back("HOME=" + m_dir.path().string());
    m_process = std::make_unique<ChildProcess>(
        std::vector<std::string>{"pulseaudio", "--daemonize=no", "-n", "--exit-idle-time=-1", "--disable-shm",
            "--load=module-null-sink sink_name=plimsink", "--load=module-native-protocol-unix",
            "--load=module-always-sink"},
        env, "/dev/null", (m_dir.path() / "pulse.log").string());
    m_up = eventually([&] { return runCommand({"pactl", "info"}, env).status == 0; }, 5);
    if (!m_up)
        return;
    // With no stream asking for less, the null sink mixes two seconds ahead, and a stream
    // that connects later cannot be mixed into what is already done: a sound played then
    // reaches the monitor up to two seconds late. A reader of the monitor that asks for
    // 100 ms (no more than the tests' own streams ask) keeps the sink mixing at most that
    // far ahead, and a suspend drops what it had mixed before.
    m_holder = std::make_unique<ChildProcess>(
        std::vector<std::string>{"parec", "--latency-msec=100", "-d", "plimsink.monitor", "--raw"}, env, "/dev/null",
        (m_dir.path() / "holder.log").string());
    m_up = eventually(
               [&] {
                   return !runCommand({"pactl", "list", "short", "source-outputs"}, env).out.empty();
               },
               2)
        && runCommand({"pactl", "suspend-sink", "plimsink", "1"}, env).status == 0
        && runCommand({"pactl", "suspend-sink", "plimsink", "0"}, env).status == 0;
}

std::vector<std::string> PulseServer::environment() const
{
    return {"XDG_RUNTIME_DIR=" + m_dir.path().string(), "PULSE_RUNTIME_PATH=" + m_dir.path().string(),
        "PULSE_SERVER=unix:" + (m_dir.path() / "native").string()};
}

std::optional<std::string> missingProgram(std::initializer_list<const char*> programs)
{
    for (const char* program : programs)
        if (runCommand({"sh", "-c", std::string("command -v ") + program}).status != 0)
            return std::string(program) + " is not installed (scripts/setup.sh installs it)";
    return std::nullopt;
}

std::optional<std::string> foldersForNobody(const fs::path& dir, std::initializer_list<fs::path> made)
{
    fs::permissions(dir, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec
            | fs::perms::others_read | fs::perms::others_exec);
    bool first = true;
    for (const fs::path& folder : made) {
        fs::create_directory(folder);
        if (first)
            fs::permissions(folder, fs::perms::owner_all);
        first = false;
        if (geteuid() == 0 && chown(folder.c_str(), 65534, 65534) != 0)
            return "the runtime folder could not be handed to nobody";
    }
    return std::nullopt;
}

SwayServer::SwayServer(const std::string& size, const std::string& client)
{
    if (auto missing = missingProgram({"sway", "foot", "grim"})) {
        m_trouble = *missing;
        return;
    }
    const bool root = geteuid() == 0;
    m_runtime = m_dir / "run";
    if (auto why = foldersForNobody(m_dir.path(), {m_runtime})) {
        m_trouble = *why;
        return;
    }
    writeText(m_dir / "config", "output HEADLESS-1 resolution " + size + "\nexec " + client + "\n");
    std::vector<std::string> argv{"env", "-u", "DISPLAY", "-u", "WAYLAND_DISPLAY", "-u", "SWAYSOCK"};
    if (root)
        argv.insert(argv.end(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"});
    argv.insert(argv.end(), {"sway", "-c", (m_dir / "config").string()});
    m_process = std::make_unique<ChildProcess>(argv,
        std::vector<std::string>{"XDG_RUNTIME_DIR=" + m_runtime.string(), "HOME=" + m_runtime.string(),
            "WLR_BACKENDS=headless", "WLR_RENDERER=pixman", "WLR_LIBINPUT_NO_DEVICES=1"},
        "/dev/null", (m_dir / "sway.log").string());
    for (int i = 0; i < 200 && !m_up; ++i) {
        pause(50);
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(m_runtime, ec)) {
            const std::string name = entry.path().filename().string();
            if (name.starts_with("wayland-") && !name.ends_with(".lock") && entry.is_socket(ec))
                m_socket = name;
        }
        m_up = !m_socket.empty() && runCommand({"grim", "-t", "ppm", "-"}, environment()).status == 0;
    }
    if (!m_up) {
        m_trouble = "sway did not start: " + readText(m_dir / "sway.log");
        m_process.reset();
    }
}

SwayServer::~SwayServer() { m_process.reset(); }

std::vector<std::string> SwayServer::environment() const
{
    return {"XDG_RUNTIME_DIR=" + m_runtime.string(), "WAYLAND_DISPLAY=" + m_socket};
}

} // namespace plim::testkit
