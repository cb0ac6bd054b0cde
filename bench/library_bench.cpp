// Listing a library of 2,000 plims with `plimctl list`: the first listing (every movie
// opened, every identity minted), a cold one (the listing cache removed, identities
// there) and warm ones (the cache holds every movie). Each runs as its own process;
// prints the time to the first record, the whole time and the peak memory.
//
//   library_bench [folder] [count]   (default: a folder under /tmp, 2000 plims; reused)

#include "media/media.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "stopwatch.h"

using namespace plim;
namespace fs = std::filesystem;

namespace {

[[noreturn]] void die(const std::string& what)
{
    std::fprintf(stderr, "library_bench: %s\n", what.c_str());
    std::exit(1);
}

// One 2 s, 1280 x 800 recording, copied under `count` names.
void ensureLibrary(const fs::path& folder, int count)
{
    fs::create_directories(folder);
    const fs::path model = folder.parent_path() / "model.mov";
    if (!fs::exists(model)) {
        auto writer = MovieWriter::create(MovieWriter::Settings::recording(model, 1280, 800, 30));
        if (!writer)
            die(writer.error().sentence);
        Image image = Image::allocate(1280, 800);
        for (int i = 0; i < 60; ++i) {
            for (int y = 0; y < 80; ++y)
                std::memset(image.row((y + i * 10) % 800) + (i * 16) * 4, 0xff, 80 * 4);
            if (!(*writer)->appendVideo(image, i / 30.0))
                die("a picture was refused");
        }
        if (auto done = (*writer)->finish(); !done)
            die(done.error().sentence);
    }
    for (int i = 0; i < count; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "Plim %04d.mov", i + 1);
        if (!fs::exists(folder / name))
            fs::copy_file(model, folder / name);
    }
}

struct Listing {
    double firstMs = 0, totalMs = 0, peakMB = 0;
    int records = 0;
};

Listing list(const fs::path& plimctl, const fs::path& folder, const fs::path& cache)
{
    int pipeFds[2];
    if (::pipe(pipeFds) != 0)
        die("no pipe");
    const auto start = bench::Steady::now();
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(pipeFds[1], STDOUT_FILENO);
        ::close(pipeFds[0]);
        ::setenv("XDG_CACHE_HOME", cache.c_str(), 1);
        if (FILE* quiet = std::freopen("/dev/null", "w", stderr); !quiet)
            _exit(126);
        ::execl(plimctl.c_str(), "plimctl", "list", "--folder", folder.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    ::close(pipeFds[1]);
    Listing result;
    FILE* in = ::fdopen(pipeFds[0], "r");
    char line[4096];
    while (std::fgets(line, sizeof line, in)) {
        if (result.records++ == 0)
            result.firstMs = bench::millisecondsSince(start);
    }
    std::fclose(in);
    int status = 0;
    rusage usage{};
    ::wait4(child, &status, 0, &usage);
    result.totalMs = bench::millisecondsSince(start);
    result.peakMB = static_cast<double>(usage.ru_maxrss) / 1024.0;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        die("plimctl list failed");
    return result;
}

void print(const char* what, const Listing& l)
{
    std::printf("%-44s %5d records, first after %7.1f ms, all in %8.1f ms, peak %5.0f MB\n", what, l.records, l.firstMs,
        l.totalMs, l.peakMB);
}

} // namespace

int main(int argc, char** argv)
{
    const fs::path root = argc > 1 ? fs::path(argv[1]) : fs::temp_directory_path() / "plim-library-bench";
    const int count = argc > 2 ? std::atoi(argv[2]) : 2000;
    const fs::path plimctl = fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "src" / "plimctl";
    if (!fs::exists(plimctl))
        die("build plimctl first (" + plimctl.string() + ")");
    const fs::path folder = root / "Plim";
    const fs::path cache = root / "cache";
    ensureLibrary(folder, count);
    fs::remove_all(cache);
    for (const auto& entry : fs::directory_iterator(folder))
        if (entry.path().string().ends_with(".id.json"))
            fs::remove(entry.path());

    print("first listing (movies opened, ids minted)", list(plimctl, folder, cache));
    fs::remove_all(cache);
    print("cold listing (no cache, ids there)", list(plimctl, folder, cache));
    for (int i = 1; i <= 3; ++i)
        print(("warm listing " + std::to_string(i) + " (target under 500 ms)").c_str(), list(plimctl, folder, cache));
    return 0;
}
