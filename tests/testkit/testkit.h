#pragma once
// Helpers every test suite shares: temporary folders, scoped environment variables,
// and child processes that are stopped by their process id.

#include "base/image.h"

#include <array>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace plim::testkit {

namespace fs = std::filesystem;

// A fresh folder under the system's temporary folder, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const fs::path& path() const { return m_path; }
    fs::path operator/(const std::string& name) const { return m_path / name; }

private:
    fs::path m_path;
};

// A tmpfs of `size` ("1m", "200k") mounted on a fresh folder and unmounted when the object goes. Mounting needs
// root: elsewhere isUp() is false.
class SmallDisk {
public:
    explicit SmallDisk(const std::string& size);
    ~SmallDisk();
    bool isUp() const { return m_up; }
    const fs::path& path() const { return m_dir.path(); }
    fs::path operator/(const std::string& name) const { return m_dir / name; }

private:
    TempDir m_dir;
    bool m_up = false;
};

// Sets (or with nullopt unsets) an environment variable and restores it afterwards.
class ScopedEnv {
public:
    ScopedEnv(std::string name, std::optional<std::string> value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_name;
    std::optional<std::string> m_old;
};

// Points HOME and the XDG folders at a temporary folder for the life of the object.
class XdgSandbox {
public:
    XdgSandbox();
    const fs::path& home() const { return m_dir.path(); }
    fs::path videos() const { return m_dir.path() / "Videos"; }

private:
    TempDir m_dir;
    ScopedEnv m_home, m_data, m_config, m_cache, m_videos;
};

std::string readText(const fs::path& path);
void writeText(const fs::path& path, const std::string& text);

// A child process started with an argument vector; killed (SIGTERM, then SIGKILL) by pid
// when the object goes away unless it has already been waited for.
class ChildProcess {
public:
    // Standard output and error go to the given files when set.
    explicit ChildProcess(std::vector<std::string> argv, std::vector<std::string> extraEnv = {},
        std::optional<fs::path> stdoutFile = std::nullopt, std::optional<fs::path> stderrFile = std::nullopt);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    int pid() const { return m_pid; }
    // Waits for exit; returns the exit status, or 128 + signal.
    int wait();
    void terminate();

private:
    int m_pid = -1;
    bool m_reaped = false;
};

// An opaque picture of one colour (0xRRGGBB).
inline Image solidImage(int width, int height, uint32_t rgb)
{
    Image image = Image::allocate(width, height);
    for (int y = 0; y < height; ++y) {
        auto* row = reinterpret_cast<uint32_t*>(image.row(y));
        for (int x = 0; x < width; ++x)
            row[x] = 0xff000000u | rgb;
    }
    return image;
}

// Runs a command to completion and returns its exit status, standard output and error.
struct CommandResult {
    int status = -1;
    std::string out;
    std::string err;
};
CommandResult runCommand(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {});

// ffprobe's values of one entry ("stream=width,height", "format=duration") of a stream ("v:0", "a:1"; empty for
// all), comma-separated, one line a stream or frame, without the last line break; `options` go before the file.
std::string probe(const fs::path& movie, const std::string& stream, const std::string& entry,
    const std::vector<std::string>& options = {});

// The RGB bytes of the area x, y, w, h of a movie's picture at `seconds`.
std::string pictureArea(const fs::path& movie, double seconds, int x, int y, int w, int h);
// The mean red, green and blue of that area; infinity each when the movie has no picture there.
std::array<double, 3> meanColour(const fs::path& movie, double seconds, int x, int y, int w, int h);
// How far the mean colour of that area is from `rgb`: the largest of the three channels'
// differences, or infinity when the movie has no picture there.
double colourGap(const fs::path& movie, double seconds, int x, int y, int w, int h, std::array<int, 3> rgb);

// File permissions do not bind root, so a test that a file without read permission is
// left alone means nothing when run as root. Called first in such a test: as root it
// runs this same test again as the unprivileged user `nobody` (its temporary folders in
// one that user may write), records a failure unless that run passed, and returns true
// so the caller returns at once; as anyone else it returns false and the test goes on.
// Polls `done` until it holds or a generous deadline passes (a safety net for a broken
// run, not a measurement).
bool eventually(const std::function<bool()>& done, double seconds = 20);

bool rerunUnprivileged();

// Path of a built executable (plim, plimctl) in the build tree.
fs::path builtExecutable(const std::string& name);
// Runs the built executable `name` with `args` to completion.
CommandResult runBuilt(
    const std::string& name, std::vector<std::string> args, const std::vector<std::string>& extraEnv);
// Runs xdotool with `args`, recording a failure unless it succeeds.
void xdotool(std::vector<std::string> args, const std::vector<std::string>& extraEnv = {});

// The one movie plimctl record left in `library` (camera side files aside); empty when there is none or more than one.
fs::path onlyMovie(const fs::path& library);

} // namespace plim::testkit
