// The staged render against a bare transcode of the same recording. Renders the demo plim
// (2560 x 1600, 60 fps, 20 s) to a 1920 x 1080, 60 fps staged movie with the zooms of its
// automatic edit and every frame kept, then transcodes the same recording to the same size
// with the same encoder settings (decode, scale, encode, nothing composed). Then the peak
// memory of staging a 3840 x 2160 recording, and the time a stage preview takes to draw a
// frame at a random time against opening one for every frame. The encoder's floor is ffmpeg
// encoding the staged movie again with the same settings. Each render runs in a fresh
// process of this program, which reports its own peak resident memory (VmHWM, which starts
// afresh at exec).
//
//   stage_bench [folder]   (default: a folder under /tmp, reused between runs)

#include "app/app.h"
#include "media/media.h"
#include "stage/stage.h"

#include "bare_transcode.h"
#include "stopwatch.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

using namespace plim;
namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

struct Figures {
    double seconds = 0;    // wall clock
    int64_t frames = 0;
    double cpuSeconds = 0; // user + system time of the process, which other load on the machine hardly changes
};

fs::path ensureDemo(const fs::path& folder, int width, int height)
{
    fs::path movie = folder / "Demo.mov";
    if (fs::exists(movie) && fs::exists(folder / "Demo.cursor.json"))
        return movie;
    DemoOptions options;
    options.width = width;
    options.height = height;
    auto start = Clock::now();
    auto made = writeDemoPlim(folder, options);
    if (!made) {
        std::fprintf(stderr, "stage_bench: %s\n", made.error().sentence.c_str());
        std::exit(1);
    }
    std::printf("generated %s (%dx%d) in %.1f s\n", movie.c_str(), width, height,
        std::chrono::duration<double>(Clock::now() - start).count());
    return movie;
}

StagingJob demoJob(const fs::path& movie, RenderRules::PixelSize canvas)
{
    auto report = gatherPlan(movie);
    if (!report) {
        std::fprintf(stderr, "stage_bench: %s\n", report.error().sentence.c_str());
        std::exit(1);
    }
    // The automatic edit's zooms over every frame of the recording.
    EditPlan plan;
    plan.zooms = proposeAutoEdit(*report).plan.zooms;
    StagingJob job;
    job.movie = movie;
    job.cursor = report->track;
    job.keys = report->keys.value_or(KeystrokeTrack{});
    job.plan = plan;
    job.canvas = canvas;
    return job;
}

Figures staged(const fs::path& movie, RenderRules::PixelSize canvas)
{
    StagingJob job = demoJob(movie, canvas);
    job.output = movie.parent_path() / "bench.staged.mp4";
    auto start = Clock::now();
    auto outcome = StagingEngine::stage(job, {}, {});
    if (!outcome.isFinished()) {
        std::fprintf(stderr, "stage_bench: %s\n", outcome.sentence.c_str());
        std::exit(1);
    }
    return {std::chrono::duration<double>(Clock::now() - start).count(), outcome.value.frames};
}

Figures bare(const fs::path& movie, RenderRules::PixelSize canvas)
{
    auto start = Clock::now();
    int64_t frames = plim::bench::bareTranscode(movie, canvas.width, canvas.height, movie.parent_path() / "bench.bare.mp4");
    return {std::chrono::duration<double>(Clock::now() - start).count(), frames};
}

// Milliseconds a frame at a random output time takes: through one preview kept open, and
// through StagingEngine::frame, which opens the movie and builds a renderer for each.
void previewSeeks(const fs::path& movie, RenderRules::PixelSize canvas)
{
    StagingJob job = demoJob(movie, canvas);
    auto preview = StagePreview::open(job);
    if (!preview) {
        std::fprintf(stderr, "stage_bench: %s\n", preview.error().sentence.c_str());
        std::exit(1);
    }
    std::mt19937 random(7);
    std::uniform_real_distribution<double> anywhere(0, (*preview)->outputDuration());
    auto timed = [](auto&& draw) {
        auto start = Clock::now();
        if (!draw())
            std::exit(1);
        return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    };
    std::vector<double> kept, opened;
    for (int i = 0; i < 20; ++i) {
        const double t = anywhere(random);
        kept.push_back(timed([&] { return (*preview)->frame(t).has_value(); }));
        if (i < 5)
            opened.push_back(timed([&] { return StagingEngine::frame(job, t).has_value(); }));
    }
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    std::printf("preview 1920x1080, a random seek: median %.0f ms, slowest %.0f ms (%zu seeks); "
                "opened for each frame: median %.0f ms\n",
        median(kept), *std::max_element(kept.begin(), kept.end()), kept.size(), median(opened));
}

// Runs this program again with `mode` and `movie` and returns the figures it prints and its
// peak memory in MB, as that process saw it.
std::pair<Figures, double> measured(const char* self, const char* mode, const fs::path& movie)
{
    int ends[2];
    if (pipe(ends) != 0)
        std::exit(1);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        execl(self, self, "--measure", mode, movie.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(ends[1]);
    std::string text;
    char buffer[256];
    for (ssize_t n; (n = read(ends[0], buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<size_t>(n));
    close(ends[0]);
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    Figures f;
    long long frames = 0;
    double peakMB = 0;
    if (std::sscanf(text.c_str(), "%lld %lf %lf", &frames, &f.seconds, &peakMB) != 3 || status != 0) {
        std::fprintf(stderr, "stage_bench: the %s measurement failed\n", mode);
        std::exit(1);
    }
    f.frames = frames;
    f.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return {f, peakMB};
}

// The encoder's floor: ffmpeg encoding the staged movie again with the same x264 settings,
// its pictures kept in YUV (decoding the staged movie is all it adds to the encoder).
Figures encoderFloor(const fs::path& staged, RenderRules::PixelSize canvas)
{
    const std::string rate = std::to_string(exportBitsPerSecond(canvas.width, canvas.height));
    const fs::path out = staged.parent_path() / "bench.floor.mp4";
    auto start = Clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        execlp("ffmpeg", "ffmpeg", "-v", "error", "-y", "-i", staged.c_str(), "-an", "-c:v", "libx264", "-preset",
            exportPreset, "-profile:v", "high", "-b:v", rate.c_str(), "-maxrate", rate.c_str(), "-bufsize", rate.c_str(),
            "-x264-params", "nal-hrd=cbr", "-g", "120", "-f", "mp4", out.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    if (status != 0) {
        std::fprintf(stderr, "stage_bench: ffmpeg could not encode the staged movie again\n");
        std::exit(1);
    }
    Figures f;
    f.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    f.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return f;
}

} // namespace

int main(int argc, char** argv)
{
    const RenderRules::PixelSize hd{1920, 1080};
    if (argc == 4 && std::string(argv[1]) == "--measure") {
        Figures f = std::string(argv[2]) == "bare" ? bare(argv[3], hd) : staged(argv[3], hd);
        std::printf("%lld %.6f %.1f\n", static_cast<long long>(f.frames), f.seconds, plim::bench::peakResidentMB());
        return 0;
    }
    fs::path folder = argc > 1 ? fs::path(argv[1]) : fs::temp_directory_path() / "plim-stage-bench";
    fs::create_directories(folder / "qhd");
    fs::create_directories(folder / "uhd");

    double load[1] = {0};
    if (getloadavg(load, 1) == 1)
        std::printf("load average at the start: %.1f on %ld cores (other work slows the wall-clock figures)\n", load[0],
            sysconf(_SC_NPROCESSORS_ONLN));
    fs::path movie = ensureDemo(folder / "qhd", 2560, 1600);
    auto [stage, stageMB] = measured(argv[0], "staged", movie);
    auto [plain, plainMB] = measured(argv[0], "bare", movie);
    Figures encodeOnly = encoderFloor(movie.parent_path() / "bench.staged.mp4", hd);
    std::printf("staged  1920x1080: %lld frames in %.2f s = %.1f fps, %.1f CPU s, peak %.0f MB\n",
        static_cast<long long>(stage.frames), stage.seconds, stage.frames / stage.seconds, stage.cpuSeconds, stageMB);
    std::printf("bare    1920x1080: %lld frames in %.2f s = %.1f fps, %.1f CPU s, peak %.0f MB\n",
        static_cast<long long>(plain.frames), plain.seconds, plain.frames / plain.seconds, plain.cpuSeconds, plainMB);
    std::printf("staged / bare: %.2f in time, %.2f in CPU (target at most 1.3, aim 1.1)\n",
        stage.seconds / plain.seconds, stage.cpuSeconds / plain.cpuSeconds);
    std::printf("encoder floor (ffmpeg encoding the staged movie again): %.1f CPU s; staged / floor %.2f in CPU "
                "(target at most 1.25)\n",
        encodeOnly.cpuSeconds, stage.cpuSeconds / encodeOnly.cpuSeconds);

    previewSeeks(movie, hd);

    fs::path uhd = ensureDemo(folder / "uhd", 3840, 2160);
    auto [big, bigMB] = measured(argv[0], "staged", uhd);
    std::printf("staged from 3840x2160: %lld frames in %.2f s = %.1f fps, %.1f CPU s, peak %.0f MB (target under 500 MB)\n",
        static_cast<long long>(big.frames), big.seconds, big.frames / big.seconds, big.cpuSeconds, bigMB);
    return 0;
}
