// Sharing the demo plim: a 1080p MP4 against a bare transcode, and a Medium GIF against
// ffmpeg's own palettegen/paletteuse GIF of the same staged frames at the same size and
// rate. Prints times, sizes and SSIM (ffmpeg's ssim filter) against the staged frames.
//
//   share_bench [folder]   (default: a folder under /tmp; the demo plim is reused)
//   share_bench --gif REFERENCE.mkv TOLERANCE DITHER SPEED
//                          only the GIF sink over staged frames a full run left, with
//                          those GIFSink options (for tuning them)
//
// The staged frames for the GIF comparison are rendered once by the staging engine at the
// GIF's canvas and 12 fps into a lossless FFV1 movie; ffmpeg's GIF is made from that movie,
// so both GIFs start from the same pictures.

#include "app/app.h"
#include "base/files.h"
#include "media/media.h"
#include "share/share.h"

#include "bare_transcode.h"
#include "stopwatch.h"

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

using namespace plim;
namespace fs = std::filesystem;

namespace {

using Steady = std::chrono::steady_clock;

double since(Steady::time_point start) { return std::chrono::duration<double>(Steady::now() - start).count(); }

// CPU seconds of this process and its finished children (ffmpeg), user and system: on a
// shared machine the wall clock says more about the neighbours than about the work.
double cpu()
{
    double total = 0;
    for (int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        getrusage(who, &usage);
        total += double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) + 1e-6 * double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    }
    return total;
}

[[noreturn]] void die(const std::string& what)
{
    std::fprintf(stderr, "share_bench: %s\n", what.c_str());
    std::exit(1);
}

std::string run(const std::string& command)
{
    std::string out;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (!pipe)
        die("cannot run " + command);
    char buffer[4096];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe))
        out.append(buffer, n);
    if (::pclose(pipe) != 0)
        die(command + " failed:\n" + out);
    return out;
}

std::string shellQuoted(const fs::path& path) { return "'" + path.string() + "'"; }

// Composed frames piped into ffmpeg as a lossless FFV1 movie.
class LosslessSink final : public VideoSink {
public:
    explicit LosslessSink(const VideoSink::Settings& s)
    {
        const std::string command = "ffmpeg -v error -y -f rawvideo -pix_fmt bgra -s " + std::to_string(s.width) + "x"
            + std::to_string(s.height) + " -r 12 -i - -c:v ffv1 " + shellQuoted(s.path.string() + ".mkv");
        m_pipe = ::popen(command.c_str(), "w");
        m_path = s.path;
    }
    Status appendVideo(const Image& image, double, StopToken) override
    {
        for (int y = 0; y < image.height; ++y)
            if (std::fwrite(image.row(y), 4, size_t(image.width), m_pipe) != size_t(image.width))
                return fail("the reference could not be written");
        return {};
    }
    Status appendAudio(const float*, int64_t, int64_t) override { return {}; }
    double soundSeconds() const override { return 0; }
    Status finish() override
    {
        const bool ok = ::pclose(m_pipe) == 0;
        m_pipe = nullptr;
        std::error_code ec;
        fs::rename(m_path.string() + ".mkv", m_path, ec);
        return ok && !ec ? Status{} : fail("ffmpeg could not finish the reference");
    }
    void cancel() override
    {
        if (m_pipe)
            ::pclose(m_pipe);
    }

private:
    FILE* m_pipe = nullptr;
    fs::path m_path;
};

double ssim(const fs::path& gif, const fs::path& reference)
{
    // Frames are paired by their index: both GIFs play 0.08 s frames for 1/12 s slots.
    const std::string out = run("ffmpeg -v info -i " + shellQuoted(gif) + " -i " + shellQuoted(reference)
        + " -lavfi \"[0:v]setpts=N,format=rgb24[a];[1:v]setpts=N,format=rgb24[b];[a][b]ssim\" -f null -");
    const auto at = out.rfind("All:");
    if (at == std::string::npos)
        die("no SSIM in ffmpeg's output:\n" + out);
    return std::atof(out.c_str() + at + 4);
}

int64_t bytes(const fs::path& path) { return static_cast<int64_t>(fs::file_size(path)); }

} // namespace

// The GIF sink alone over the staged frames: size, SSIM and CPU time for one setting.
int gifOnly(const fs::path& reference, GIFSink::Options options)
{
    auto reader = MovieReader::create(reference);
    if (!reader)
        die(reader.error().sentence);
    const fs::path gif = reference.parent_path() / "tuning.gif";
    const MovieInfo info = (*reader)->info();
    auto sink = GIFSink::create(gif, {double(info.width), double(info.height)}, options);
    if (!sink)
        die(sink.error().sentence);
    double sinkCPU = 0;
    for (int frame = 0;; ++frame) {
        auto next = (*reader)->next();
        if (!next || !*next)
            break;
        const double before = cpu();
        if (!(*sink)->append((*next)->image, frame / 12.0))
            die("a frame was refused");
        sinkCPU += cpu() - before;
    }
    const double before = cpu();
    if (!(*sink)->finish())
        die("the GIF was not finished");
    sinkCPU += cpu() - before;
    std::printf("tolerance %d, dithering %.2f, speed %d: %lld bytes, SSIM %.4f, %.1f s CPU in the sink\n", options.changeTolerance,
        options.dithering, options.quantizeSpeed, static_cast<long long>(bytes(gif)), ssim(gif, reference), sinkCPU);
    return 0;
}

// A 4K MP4 share in a process of its own (its peak memory is its own, VmHWM): prints the
// bytes, the estimate, the seconds and the peak in MB.
int fourK(const fs::path& movie, const fs::path& out)
{
    ShareEngine::Environment desk;
    desk.keepOriginal = [] { return true; };
    desk.wallpaperURL = [] { return std::nullopt; };
    ShareEngine engine(desk);
    auto start = Steady::now();
    ShareOutcome shared = engine.share(movie, ShareKind::video, ShareQuality::p4K, ShareDestination::save(out));
    if (shared.kind != ShareOutcome::Kind::finished)
        die(shared.sentence);
    std::printf("%lld %lld %.3f %.1f\n", static_cast<long long>(shared.bytes), static_cast<long long>(shared.estimate), since(start),
        plim::bench::peakResidentMB());
    return 0;
}

int main(int argc, char** argv)
{
    if (argc == 6 && std::string(argv[1]) == "--gif")
        return gifOnly(argv[2], {12, std::atoi(argv[3]), float(std::atof(argv[4])), std::atoi(argv[5])});
    if (argc == 4 && std::string(argv[1]) == "--4k")
        return fourK(argv[2], argv[3]);
    const fs::path folder = argc > 1 ? fs::path(argv[1]) : fs::temp_directory_path() / "plim-share-bench";
    const fs::path demo = folder / "demo";
    const fs::path out = folder / "out";
    fs::remove_all(out);
    fs::create_directories(out);
    fs::path movie = demo / "Demo.mov";
    if (!fs::exists(movie)) {
        auto start = Steady::now();
        auto made = writeDemoPlim(demo);
        if (!made)
            die(made.error().sentence);
        std::printf("generated the demo plim in %.1f s\n", since(start));
    }

    ShareEngine::Environment desk;
    desk.keepOriginal = [] { return true; };
    desk.wallpaperURL = [] { return std::nullopt; };
    ShareEngine engine(desk);

    // 1080p MP4 share against a bare transcode (decode, scale, encode) at the same canvas.
    auto start = Steady::now();
    double cpuStart = cpu();
    ShareOutcome mp4 = engine.share(movie, ShareKind::video, ShareQuality::p1080, ShareDestination::save(out));
    const double mp4Seconds = since(start), mp4CPU = cpu() - cpuStart;
    if (mp4.kind != ShareOutcome::Kind::finished)
        die(mp4.sentence);
    const std::string size = run("ffprobe -v error -select_streams v:0 -show_entries stream=width,height -of csv=p=0 " + shellQuoted(mp4.url));
    const int width = std::atoi(size.c_str());
    const int height = std::atoi(size.c_str() + size.find(',') + 1);
    start = Steady::now();
    cpuStart = cpu();
    const int64_t bareFrames = plim::bench::bareTranscode(movie, width, height, out / "bare.mp4");
    const double bareSeconds = since(start), bareCPU = cpu() - cpuStart;
    std::printf("mp4 1080p share: %dx%d, %lld bytes, %.1f s (%.1f s CPU); bare transcode (%lld frames) %.1f s (%.1f s CPU); "
                "share / bare = %.2f wall, %.2f CPU (target at most 1.3)\n",
        width, height, static_cast<long long>(mp4.bytes), mp4Seconds, mp4CPU, static_cast<long long>(bareFrames), bareSeconds,
        bareCPU, mp4Seconds / bareSeconds, mp4CPU / bareCPU);
    std::printf("mp4 1080p share: estimate said before rendering %lld bytes; file / estimate %.3f (target 0.85 to 1.15)\n",
        static_cast<long long>(mp4.estimate), double(mp4.bytes) / double(std::max<int64_t>(mp4.estimate, 1)));
    // The share shows the edit (its skips sped up), so it writes fewer frames than the bare
    // transcode of the whole recording; per frame written, the two compare like this.
    const long long shareFrames = std::atoll(
        run("ffprobe -v error -select_streams v:0 -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "
            + shellQuoted(mp4.url)).c_str());
    if (shareFrames > 0 && bareFrames > 0)
        std::printf("per frame written: share %lld frames, %.1f ms CPU each; bare %.1f ms CPU each; ratio %.2f\n", shareFrames,
            1e3 * mp4CPU / double(shareFrames), 1e3 * bareCPU / double(bareFrames),
            (mp4CPU / double(shareFrames)) / (bareCPU / double(bareFrames)));
    // For scale: ffmpeg's own transcode, which scales in YUV and never goes through RGB.
    start = Steady::now();
    cpuStart = cpu();
    run("ffmpeg -v error -y -i " + shellQuoted(movie) + " -vf scale=" + std::to_string(width) + ":" + std::to_string(height)
        + " -r 60 -c:v libx264 -preset " + exportPreset + " -profile:v high -b:v "
        + std::to_string(exportBitsPerSecond(width, height)) + " -c:a aac -b:a 160k " + shellQuoted(out / "ffmpeg.mp4"));
    const double cliSeconds = since(start), cliCPU = cpu() - cpuStart;
    std::printf("ffmpeg CLI transcode %.1f s (%.1f s CPU); share / ffmpeg = %.2f wall, %.2f CPU\n", cliSeconds, cliCPU,
        mp4Seconds / cliSeconds, mp4CPU / cliCPU);

    // A 4K share in a fresh process.
    {
        const std::string line = run(shellQuoted(fs::read_symlink("/proc/self/exe")) + " --4k " + shellQuoted(movie) + " "
            + shellQuoted(out));
        long long fileBytes = 0, estimate = 0;
        double seconds = 0, peak = 0;
        if (std::sscanf(line.c_str(), "%lld %lld %lf %lf", &fileBytes, &estimate, &seconds, &peak) != 4)
            die("the 4K share printed " + line);
        std::printf("mp4 4K share: %lld bytes (estimate %lld, file / estimate %.3f), %.1f s, peak %.0f MB (target under 600 MB)\n",
            fileBytes, estimate, double(fileBytes) / double(std::max(estimate, 1LL)), seconds, peak);
    }

    // Medium GIF share.
    start = Steady::now();
    cpuStart = cpu();
    ShareOutcome gif = engine.share(movie, ShareKind::gif, ShareQuality::p1080, ShareDestination::save(out));
    const double gifSeconds = since(start), gifCPU = cpu() - cpuStart;
    if (gif.kind != ShareOutcome::Kind::finished)
        die(gif.sentence);

    // The same staged frames, lossless, then ffmpeg's GIF of them.
    auto plim = SharePlim::read(movie);
    if (!plim)
        die(plim.error().sentence);
    StagingJob job = plim->job;
    job.quality = RenderRules::Quality::p1080;
    ShareRender::prepare(job, ShareKind::gif);
    job.makeSink = [](const VideoSink::Settings& s) -> Result<std::unique_ptr<VideoSink>> { return std::make_unique<LosslessSink>(s); };
    const fs::path reference = out / "staged-frames.mkv";
    job.output = reference;
    start = Steady::now();
    cpuStart = cpu();
    auto staged = ShareRender::run(job, {}, {});
    const double stageSeconds = since(start), stageCPU = cpu() - cpuStart;
    if (!staged.isFinished())
        die(staged.sentence);
    const fs::path ffmpegGif = out / "ffmpeg.gif";
    start = Steady::now();
    cpuStart = cpu();
    run("ffmpeg -v error -y -i " + shellQuoted(reference) + " -vf \"split[a][b];[a]palettegen[p];[b][p]paletteuse\" " + shellQuoted(ffmpegGif));
    const double ffmpegSeconds = since(start), ffmpegCPU = cpu() - cpuStart;

    const double plimSSIM = ssim(gif.url, reference);
    const double ffmpegSSIM = ssim(ffmpegGif, reference);
    std::printf("staged frames for the GIF: %lld at %dx%d, %.1f s (%.1f s CPU)\n", static_cast<long long>(staged.value.frames),
        staged.value.width, staged.value.height, stageSeconds, stageCPU);
    std::printf("plim gif:   %lld bytes, SSIM %.4f, %.1f s (%.1f s CPU), staging and GIF together\n",
        static_cast<long long>(bytes(gif.url)), plimSSIM, gifSeconds, gifCPU);
    std::printf("ffmpeg gif: %lld bytes, SSIM %.4f, %.1f s (%.1f s CPU) for palettegen + paletteuse, %.1f s (%.1f s CPU) with the staging\n",
        static_cast<long long>(bytes(ffmpegGif)), ffmpegSSIM, ffmpegSeconds, ffmpegCPU, ffmpegSeconds + stageSeconds, ffmpegCPU + stageCPU);
    std::printf("plim / ffmpeg: size %.2f (target at most 1), SSIM %+.4f (target above 0), time %.2f wall, %.2f CPU (target at most 1)\n",
        double(bytes(gif.url)) / double(bytes(ffmpegGif)), plimSSIM - ffmpegSSIM, gifSeconds / (ffmpegSeconds + stageSeconds),
        gifCPU / (ffmpegCPU + stageCPU));
    return 0;
}
