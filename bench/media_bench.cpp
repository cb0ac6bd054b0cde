// Times the bare transcode (decode → scale/convert → encode) of 1080p60 screen content for
// each x264 preset at the export bit rate, with the quality each one keeps (PSNR of the
// decoded result against the source), and the sound mix of a minute with a sped-up stretch.
// Usage: media_bench [seconds of source, default 2]

#include "media/media.h"
#include "plan/plan.h"
#include "stage/stage.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <unistd.h>

using namespace plim;
namespace fs = std::filesystem;

namespace {

using SteadyClock = std::chrono::steady_clock;

double secondsSince(SteadyClock::time_point start) { return std::chrono::duration<double>(SteadyClock::now() - start).count(); }

// A page of "text": dark glyph-sized marks in lines on white, taller than the screen so
// frames can scroll through it, with a coloured sidebar.
Image makePage(int width, int height)
{
    Image page = Image::allocate(width, height);
    std::mt19937 random(7);
    std::uniform_int_distribution<int> glyph(4, 11), gap(0, 9);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            uint8_t* p = page.row(y) + 4 * x;
            bool sidebar = x < 280;
            p[0] = sidebar ? 70 : 250, p[1] = sidebar ? 50 : 250, p[2] = sidebar ? 40 : 250, p[3] = 255;
        }
    for (int line = 40; line + 14 < height; line += 22)
        for (int x = 320; x < width - 80;) {
            int w = glyph(random);
            if (gap(random) == 0) {
                x += 12; // a space
                continue;
            }
            for (int y = line; y < line + 12; ++y)
                for (int i = x; i < x + w && i < width; ++i)
                    if ((i + y) % 3)
                        std::fill_n(page.row(y) + 4 * i, 3, static_cast<uint8_t>(30));
            x += w + 2;
        }
    return page;
}

Image frameOf(const Image& page, int n, int width, int height)
{
    Image frame = Image::allocate(width, height);
    int scroll = (n * 3) % (page.height - height);
    for (int y = 0; y < height; ++y)
        std::copy_n(page.row(y + scroll), 4 * width, frame.row(y));
    // A pointer-sized square crossing the screen.
    int px = (n * 13) % (width - 24), py = height / 3 + (n * 5) % 200;
    for (int y = py; y < py + 24; ++y)
        std::fill_n(frame.row(y) + 4 * px, 4 * 24, static_cast<uint8_t>(0));
    return frame;
}

// Calls `use` with each picture of a movie in order; returns how many there were.
template<typename Use>
int eachFrame(MovieReader& reader, Use use)
{
    int n = 0;
    for (;;) {
        auto f = reader.next();
        if (!f || !*f)
            return n;
        use(**f, n++);
    }
}

double psnr(const Image& a, const Image& b)
{
    double sum = 0;
    for (int y = 0; y < a.height; ++y)
        for (int x = 0; x < a.width * 4; ++x) {
            if (x % 4 == 3)
                continue;
            double d = double(a.row(y)[x]) - double(b.row(y)[x]);
            sum += d * d;
        }
    double mse = sum / (double(a.width) * a.height * 3);
    return mse <= 0 ? 99 : 10 * std::log10(255.0 * 255.0 / mse);
}

} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 2.0;
    const int width = 1920, height = 1080;
    const double fps = 60;
    const int frames = static_cast<int>(seconds * fps);
    fs::path dir = fs::temp_directory_path() / ("plim-media-bench-" + std::to_string(getpid()));
    fs::create_directories(dir);
    Image page = makePage(width, height + 600);

    // The source: a near-lossless recording of the page.
    fs::path source = dir / "source.mov";
    {
        MovieWriter::Settings s{.path = source, .container = MovieWriter::Container::fragmentedMov, .width = width,
            .height = height, .frameRate = fps, .bitsPerSecond = 60000000, .preset = recordingPreset};
        auto writer = MovieWriter::create(s);
        if (!writer) {
            std::fprintf(stderr, "%s\n", writer.error().sentence.c_str());
            return 1;
        }
        auto start = SteadyClock::now();
        for (int n = 0; n < frames; ++n)
            if (!(*writer)->appendVideo(frameOf(page, n, width, height), n / fps))
                return 1;
        if (!(*writer)->finish())
            return 1;
        std::printf("recording (%s, %d x %d, %.0f fps, %d frames): %.1f frames/s\n", recordingPreset, width, height,
            fps, frames, frames / secondsSince(start));
    }

    // Decoding alone, at full size and scaled to 720p in the same pass.
    for (auto [w, h] : {std::pair{0, 0}, std::pair{1280, 720}}) {
        auto reader = MovieReader::create(source, MovieReader::Options{w, h, 0});
        if (!reader)
            return 1;
        auto start = SteadyClock::now();
        int n = eachFrame(**reader, [](const VideoFrame&, int) {});
        std::printf("decode to BGRA %s: %.1f frames/s\n", w ? "scaled to 1280 x 720" : "at 1920 x 1080",
            n / secondsSince(start));
    }

    // Bare transcode per preset at the export bit rate.
    std::printf("export bit rate at 1080p: %lld bps\n", static_cast<long long>(exportBitsPerSecond(width, height)));
    for (const char* preset : {"ultrafast", "superfast", "veryfast", "faster", "fast"}) {
        fs::path out = dir / (std::string(preset) + ".mp4");
        auto reader = MovieReader::create(source);
        MovieWriter::Settings s{.path = out, .width = width, .height = height, .frameRate = fps, .preset = preset};
        auto writer = MovieWriter::create(s);
        if (!reader || !writer)
            return 1;
        auto start = SteadyClock::now();
        bool written = true;
        int n = eachFrame(**reader,
            [&](const VideoFrame& f, int) { written = written && (*writer)->appendVideo(f.image, f.time).has_value(); });
        if (!written || !(*writer)->finish())
            return 1;
        double elapsed = secondsSince(start);
        // Quality: each decoded export frame against the page it was made from.
        auto check = MovieReader::create(out);
        double total = 0, worst = 99;
        int m = eachFrame(**check, [&](const VideoFrame& f, int i) {
            double p = psnr(f.image, frameOf(page, i, width, height));
            total += p;
            worst = std::min(worst, p);
        });
        std::printf("transcode %-9s: %6.1f frames/s (%.2fx real time), PSNR mean %.2f dB, worst %.2f dB, %lld bytes\n",
            preset, n / elapsed, n / elapsed / fps, m ? total / m : 0.0, worst,
            static_cast<long long>(fs::file_size(out)));
    }

    // Mixing a minute of sound with a 20 s stretch at four times.
    {
        std::vector<float> tone(2 * 60 * 48000);
        for (size_t i = 0; i < tone.size() / 2; ++i)
            tone[2 * i] = tone[2 * i + 1] = 0.3f * static_cast<float>(std::sin(2 * M_PI * 440.0 * i / 48000));
        EditPlan edit{.skips = {{{20, 40}, false, 4.0}}};
        SoundMix plan = planShareAudio(edit, 60, {{5, 10, 0.2}}, true, 48000);
        SoundMixer mixer(plan, std::make_shared<ArrayPCMSource>(tone),
            {{0, std::make_shared<ArrayPCMSource>(tone)}});
        auto start = SteadyClock::now();
        int64_t mixed = 0;
        while (auto block = mixer.next(4096)) {
            if (!*block)
                break;
            mixed += static_cast<int64_t>((*block)->samples.size() / 2);
        }
        double elapsed = secondsSince(start);
        std::printf("mix %.1f s of output (20 s sped up four times, one voice): %.3f s, %.0fx real time\n",
            mixed / 48000.0, elapsed, mixed / 48000.0 / elapsed);
    }
    fs::remove_all(dir);
    return 0;
}
