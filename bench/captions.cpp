// The built-in recogniser on a five-minute plim: flite's speech (sentences 1.5 s apart, and
// a 20-s silence each minute) in a recording-style movie. Prints the time to decode the
// sound, PocketSphinx's real-time factor (seconds of work per second of sound, wall and
// CPU) and the peak memory of decoding and recognising.

#include "captions/captions.h"
#include "media/movie_writer.h"
#include "media/sound_reader.h"

#include "processes.h"
#include "stopwatch.h"

#include <sys/resource.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

using namespace plim;
namespace fs = std::filesystem;
using plim::bench::millisecondsSince;
using plim::bench::Steady;

namespace {

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// A sentence as flite's "slt" voice speaks it, 48 kHz interleaved stereo; empty on failure.
std::vector<float> spoken(const std::string& text, const fs::path& wav)
{
    pid_t pid = bench::spawn({"flite", "-voice", "slt", "-t", text, "-o", wav.string()});
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || status != 0)
        return {};
    auto reader = SoundReader::create(wav);
    std::vector<float> out;
    while (reader) {
        auto block = (*reader)->read();
        if (!block || block->empty())
            break;
        out.insert(out.end(), block->begin(), block->end());
    }
    return out;
}

} // namespace

int main()
{
    const double length = 300;
    const std::vector<std::string> sentences = {"Welcome to this short recording.", "Today we open the settings window.",
        "Click the button at the top.", "Then choose a folder for your files.", "The program saves everything for you.",
        "Now we look at the export options.", "Pick the size and the frame rate.", "Thank you for watching this video."};
    const fs::path dir = fs::temp_directory_path() / ("plim-captions-bench-" + std::to_string(getpid()));
    fs::create_directories(dir);
    std::vector<std::vector<float>> voices;
    for (size_t i = 0; i < sentences.size(); ++i) {
        voices.push_back(spoken(sentences[i], dir / ("s" + std::to_string(i) + ".wav")));
        if (voices.back().empty()) {
            std::fprintf(stderr, "flite could not speak; install it (apt install flite)\n");
            return 1;
        }
    }
    const size_t total = static_cast<size_t>(length * soundSampleRate) * 2;
    std::vector<float> stereo;
    stereo.reserve(total);
    for (size_t i = 0; stereo.size() < total; ++i) {
        const double at = static_cast<double>(stereo.size() / 2) / soundSampleRate;
        const double pause = std::fmod(at, 60.0) > 40 && std::fmod(at, 60.0) < 45 ? 20 : 1.5;
        stereo.resize(stereo.size() + 2 * static_cast<size_t>(pause * soundSampleRate), 0.0f);
        const auto& voice = voices[i % voices.size()];
        stereo.insert(stereo.end(), voice.begin(), voice.end());
    }
    stereo.resize(total, 0.0f);

    const fs::path movie = dir / "Talk.mov";
    {
        auto writer = MovieWriter::create([&] {
            auto s = MovieWriter::Settings::recording(movie, 320, 192, 2);
            s.sound.push_back(MovieWriter::systemSoundTrack());
            return s;
        }());
        if (!writer) {
            std::fprintf(stderr, "%s\n", writer.error().sentence.c_str());
            return 1;
        }
        Image picture = Image::allocate(320, 192);
        for (int i = 0; i < static_cast<int>(length * 2); ++i)
            (void)(*writer)->appendVideo(picture, i / 2.0);
        (void)(*writer)->appendAudio(0, stereo.data(), static_cast<int64_t>(stereo.size() / 2), 0);
        if (auto done = (*writer)->finish(); !done) {
            std::fprintf(stderr, "%s\n", done.error().sentence.c_str());
            return 1;
        }
    }
    stereo = {};
    voices = {};
    std::printf("plim: %.0f s of flite speech with pauses, %s\n", length, movie.c_str());

    // The peak so far is the movie's making; start the count afresh (Linux: "5" resets VmHWM).
    const double memoryBefore = bench::peakResidentMB();
    if (FILE* refs = std::fopen("/proc/self/clear_refs", "w")) {
        std::fputs("5", refs);
        std::fclose(refs);
    }
    auto start = Steady::now();
    auto samples = CaptionAudio::monoSamples(movie, "the built-in recognizer");
    if (!samples) {
        std::fprintf(stderr, "%s\n", samples.error().sentence.c_str());
        return 1;
    }
    std::printf("decode to 16 kHz mono: %.0f ms (%zu samples)\n", millisecondsSince(start), samples->size());

    auto engine = pocketSphinxEngine("en");
    if (!engine) {
        std::fprintf(stderr, "%s\n", engine.error().sentence().c_str());
        return 1;
    }
    const double cpuStart = cpuSeconds();
    start = Steady::now();
    auto words = (*engine)->transcribe(*samples, length, {}, {});
    const double wall = millisecondsSince(start) / 1000;
    const double cpu = cpuSeconds() - cpuStart;
    if (!words) {
        std::fprintf(stderr, "%s\n", words.error().sentence().c_str());
        return 1;
    }
    const auto lines = captionLines(*words);
    std::printf("pocketsphinx: %.1f s wall, %.1f s CPU for %.0f s of sound: real-time factor %.3f wall, %.3f CPU\n", wall,
        cpu, length, wall / length, cpu / length);
    std::printf("words %zu, lines %zu\n", words->size(), lines.size());
    std::printf("peak memory while decoding and recognising: %.0f MB (%.0f MB while the plim was made)\n",
        bench::peakResidentMB(), memoryBefore);
    std::error_code ec;
    fs::remove_all(dir, ec);
    return 0;
}
