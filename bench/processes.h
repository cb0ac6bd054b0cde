#pragma once
// Starting the programs a benchmark measures or needs (an X server, a bus, Plim itself).

#include <xcb/xcb.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace plim::bench {

// Starts `argv` (searched on PATH) with standard input from /dev/null and standard output
// and error written afresh to the files given; -1 when it cannot start.
inline pid_t spawn(const std::vector<std::string>& argv, const std::string& out = "/dev/null",
    const std::string& err = "/dev/null")
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Starts Xvfb on `display` with one screen of `size` ("1920x1080x24"), its output in
// `dir`, and waits until it answers; -1 (nothing left running) when it does not.
inline pid_t startXvfb(const std::string& display, const std::string& size, const std::string& dir)
{
    pid_t xvfb = spawn({"Xvfb", display, "-nolisten", "tcp", "-noreset", "-screen", "0", size}, dir + "/xvfb.out",
        dir + "/xvfb.err");
    for (int i = 0; i < 100 && xvfb > 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        xcb_connection_t* c = xcb_connect(display.c_str(), nullptr);
        const bool up = !xcb_connection_has_error(c);
        xcb_disconnect(c);
        if (up)
            return xvfb;
    }
    std::fprintf(stderr, "Xvfb did not start on %s\n", display.c_str());
    if (xvfb > 0)
        kill(xvfb, SIGTERM);
    return -1;
}

// CPU seconds (user + system) the process has used so far.
inline double cpuSeconds(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto close = text.rfind(')');
    if (close == std::string::npos)
        return 0;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; fields >> field; ++i)
        if (i == 14 || i == 15)
            ticks += std::stod(field);
    return ticks / double(sysconf(_SC_CLK_TCK));
}

// Draws on the root window of an X display.
class RootPainter {
public:
    explicit RootPainter(const std::string& display) : m_c(xcb_connect(display.c_str(), nullptr))
    {
        m_root = xcb_setup_roots_iterator(xcb_get_setup(m_c)).data->root;
        m_gc = xcb_generate_id(m_c);
        uint32_t black = 0;
        xcb_create_gc(m_c, m_gc, m_root, XCB_GC_FOREGROUND, &black);
    }
    ~RootPainter() { xcb_disconnect(m_c); }
    RootPainter(const RootPainter&) = delete;
    RootPainter& operator=(const RootPainter&) = delete;

    xcb_connection_t* connection() const { return m_c; }
    xcb_window_t root() const { return m_root; }

    void fill(uint32_t rgb, int x, int y, int width, int height)
    {
        xcb_change_gc(m_c, m_gc, XCB_GC_FOREGROUND, &rgb);
        xcb_rectangle_t r{int16_t(x), int16_t(y), uint16_t(width), uint16_t(height)};
        xcb_poly_fill_rectangle(m_c, m_root, m_gc, 1, &r);
    }
    // `count` colour bars 40 pixels wide from column `x`, in the colours of animation step `frame`.
    void bars(uint32_t frame, int x, int count, int height)
    {
        for (int bar = 0; bar < count; ++bar)
            fill(((frame * 5 + uint32_t(bar) * 11) & 0xff) << 16 | ((frame * 3 + uint32_t(bar) * 7) & 0xff) << 8
                    | ((frame * 7 + uint32_t(bar) * 13) & 0xff),
                x + bar * 40, 0, 40, height);
    }

private:
    xcb_connection_t* m_c;
    xcb_window_t m_root = 0;
    xcb_gcontext_t m_gc = 0;
};

} // namespace plim::bench
