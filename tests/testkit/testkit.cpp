#include "testkit/testkit.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace plim::testkit {

TempDir::TempDir()
{
    std::string pattern = (fs::temp_directory_path() / "plim-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempDir::~TempDir()
{
    std::error_code ec;
    // Restore permissions that tests took away so the folder can be removed.
    for (auto it = fs::recursive_directory_iterator(m_path, fs::directory_options::skip_permission_denied, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
        fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(m_path, ec);
}

ScopedEnv::ScopedEnv(std::string name, std::optional<std::string> value) : m_name(std::move(name))
{
    if (const char* old = std::getenv(m_name.c_str()))
        m_old = old;
    if (value)
        setenv(m_name.c_str(), value->c_str(), 1);
    else
        unsetenv(m_name.c_str());
}

ScopedEnv::~ScopedEnv()
{
    if (m_old)
        setenv(m_name.c_str(), m_old->c_str(), 1);
    else
        unsetenv(m_name.c_str());
}

XdgSandbox::XdgSandbox()
    : m_home("HOME", m_dir.path().string())
    , m_data("XDG_DATA_HOME", (m_dir.path() / ".local/share").string())
    , m_config("XDG_CONFIG_HOME", (m_dir.path() / ".config").string())
    , m_cache("XDG_CACHE_HOME", (m_dir.path() / ".cache").string())
    , m_videos("XDG_VIDEOS_DIR", (m_dir.path() / "Videos").string())
{
}

std::string readText(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeText(const fs::path& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

ChildProcess::ChildProcess(std::vector<std::string> argv, std::vector<std::string> extraEnv,
    std::optional<fs::path> stdoutFile, std::optional<fs::path> stderrFile)
{
    const int outFd = stdoutFile ? open(stdoutFile->c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644) : -1;
    const int errFd = stderrFile ? open(stderrFile->c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644) : -1;
    m_pid = fork();
    if (m_pid == 0) {
        if (outFd >= 0)
            dup2(outFd, 1);
        if (errFd >= 0)
            dup2(errFd, 2);
        for (auto& kv : extraEnv)
            putenv(kv.data());
        std::vector<char*> args;
        for (auto& a : argv)
            args.push_back(a.data());
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    for (int fd : {outFd, errFd})
        if (fd >= 0)
            close(fd);
}

ChildProcess::~ChildProcess() { terminate(); }

int ChildProcess::wait()
{
    if (m_reaped || m_pid <= 0)
        return -1;
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_reaped = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void ChildProcess::terminate()
{
    if (m_reaped || m_pid <= 0)
        return;
    kill(m_pid, SIGTERM);
    m_reaped = eventually([&] { return waitpid(m_pid, nullptr, WNOHANG) == m_pid; }, 2);
    if (!m_reaped)
        kill(m_pid, SIGKILL);
    wait();
}

CommandResult runCommand(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv)
{
    TempDir dir;
    CommandResult result;
    {
        ChildProcess child(argv, extraEnv, dir / "out", dir / "err");
        result.status = child.wait();
    }
    result.out = readText(dir / "out");
    result.err = readText(dir / "err");
    return result;
}

bool eventually(const std::function<bool()>& done, double seconds)
{
    // The condition runs once per look: some conditions act (type a key) as they test.
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        if (done())
            return true;
        if (std::chrono::steady_clock::now() >= until)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

bool rerunUnprivileged()
{
    if (geteuid() != 0)
        return false;
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string name = std::string(test->test_suite_name()) + "." + test->name();
    TempDir scratch;
    fs::permissions(scratch.path(), fs::perms::all | fs::perms::sticky_bit);
    fs::path self = fs::read_symlink("/proc/self/exe");
    auto run = runCommand({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--", self.string(),
                              "--gtest_filter=" + name},
        {"TMPDIR=" + scratch.path().string()});
    EXPECT_EQ(run.status, 0) << "as nobody:\n" << run.out << run.err;
    EXPECT_NE(run.out.find("[  PASSED  ] 1 test"), std::string::npos) << "as nobody:\n" << run.out << run.err;
    return true;
}

std::string probe(const fs::path& movie, const std::string& stream, const std::string& entry,
    const std::vector<std::string>& options)
{
    std::vector<std::string> argv{"ffprobe", "-v", "error"};
    argv.insert(argv.end(), options.begin(), options.end());
    if (!stream.empty())
        argv.insert(argv.end(), {"-select_streams", stream});
    argv.insert(argv.end(), {"-show_entries", entry, "-of", "csv=p=0", movie.string()});
    std::string out = runCommand(argv).out;
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r'))
        out.pop_back();
    return out;
}

std::string pictureArea(const fs::path& movie, double seconds, int x, int y, int w, int h)
{
    const std::string crop
        = "crop=" + std::to_string(w) + ":" + std::to_string(h) + ":" + std::to_string(x) + ":" + std::to_string(y);
    return runCommand({"ffmpeg", "-v", "error", "-ss", std::to_string(seconds), "-i", movie.string(), "-frames:v", "1",
                          "-vf", crop, "-f", "rawvideo", "-pix_fmt", "rgb24", "-"})
        .out;
}

std::array<double, 3> meanColour(const fs::path& movie, double seconds, int x, int y, int w, int h)
{
    const std::string pixels = pictureArea(movie, seconds, x, y, w, h);
    const double none = std::numeric_limits<double>::infinity();
    if (pixels.size() != size_t(w) * size_t(h) * 3)
        return {none, none, none};
    std::array<double, 3> sum{};
    for (size_t i = 0; i < pixels.size(); ++i)
        sum[i % 3] += uint8_t(pixels[i]) / (double(w) * h);
    return sum;
}

double colourGap(const fs::path& movie, double seconds, int x, int y, int w, int h, std::array<int, 3> rgb)
{
    const auto mean = meanColour(movie, seconds, x, y, w, h);
    double gap = 0;
    for (int c = 0; c < 3; ++c)
        gap = std::max(gap, std::abs(mean[c] - rgb[c]));
    return gap;
}

fs::path builtExecutable(const std::string& name)
{
    // Test executables live in build/tests; the programs in build/src.
    fs::path self = fs::read_symlink("/proc/self/exe");
    return self.parent_path().parent_path() / "src" / name;
}

CommandResult runBuilt(const std::string& name, std::vector<std::string> args, const std::vector<std::string>& extraEnv)
{
    args.insert(args.begin(), builtExecutable(name).string());
    return runCommand(args, extraEnv);
}

void xdotool(std::vector<std::string> args, const std::vector<std::string>& extraEnv)
{
    args.insert(args.begin(), "xdotool");
    const auto result = runCommand(args, extraEnv);
    EXPECT_EQ(result.status, 0) << args[1] << ": " << result.err;
}

fs::path onlyMovie(const fs::path& library)
{
    std::vector<fs::path> movies;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(library, ec))
        if (entry.path().extension() == ".mov" && entry.path().string().find(".camera.") == std::string::npos)
            movies.push_back(entry.path());
    return movies.size() == 1 ? movies[0] : fs::path();
}

SmallDisk::SmallDisk(const std::string& size)
    : m_up(::mount("tmpfs", m_dir.path().c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0)
{
}

SmallDisk::~SmallDisk()
{
    if (m_up)
        ::umount2(m_dir.path().c_str(), MNT_DETACH);
}

} // namespace plim::testkit
