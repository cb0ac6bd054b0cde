#include "app/demo_plim.h"

#include "app/demo_desktop.h"
#include "app/demo_script.h"
#include "base/log.h"
#include "media/media.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>

extern char** environ;

namespace plim {

namespace fs = std::filesystem;

namespace {

// Runs a program with its arguments (no shell) and waits; true when it exited with 0.
bool runProgram(const std::vector<std::string>& argv)
{
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0)
        return false;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The spoken lines at their times, as 48 kHz interleaved stereo over the whole demo.
// Empty when espeak-ng cannot speak here.
std::vector<float> speech(const demo::Script& script, const fs::path& scratch)
{
    const int64_t total = static_cast<int64_t>(std::ceil(script.duration * soundSampleRate));
    std::vector<float> mix(static_cast<size_t>(total) * soundChannels, 0.0f);
    for (std::size_t i = 0; i < script.speech.size(); ++i) {
        const auto& line = script.speech[i];
        fs::path wav = scratch / ("line" + std::to_string(i) + ".wav");
        if (!runProgram({"espeak-ng", "-s", "165", "-w", wav.string(), line.text})) {
            logLine(LogArea::main, "the demo plim is silent: espeak-ng could not speak (is it installed?).");
            return {};
        }
        auto reader = SoundReader::create(wav);
        if (!reader) {
            logLine(LogArea::main, "the demo plim is silent: " + reader.error().sentence);
            return {};
        }
        int64_t at = static_cast<int64_t>(line.t * soundSampleRate) * soundChannels;
        for (;;) {
            auto block = (*reader)->read();
            if (!block || block->empty())
                break;
            for (float v : *block) {
                if (at >= static_cast<int64_t>(mix.size()))
                    break;
                mix[static_cast<size_t>(at++)] += 0.85f * v;
            }
        }
    }
    return mix;
}

} // namespace

Status drawDemoFrames(const DemoOptions& options, const std::function<Status(const Image&, double)>& frame)
{
    const auto& script = demo::script();
    demo::Desktop desktop(script, options.width, options.height);
    const double seconds = options.seconds > 0 ? std::min(options.seconds, script.duration) : script.duration;
    const int64_t count = static_cast<int64_t>(std::llround(seconds * options.fps));
    for (int64_t i = 0; i < count; ++i) {
        double t = static_cast<double>(i) / options.fps;
        PLIM_TRY(frame(desktop.frameAt(t), t));
    }
    return {};
}

Result<fs::path> writeDemoPlim(const fs::path& folder, const DemoOptions& options)
{
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec)
        return fail("Plim could not make the folder " + folder.string() + " (" + ec.message()
            + "). Nothing was written; choose a folder you can write to.");
    const auto& script = demo::script();
    const fs::path movie = folder / "Demo.mov";
    const fs::path partial = folder / "Demo.partial.mov";

    std::vector<float> sound = options.sound ? speech(script, folder) : std::vector<float>{};
    for (std::size_t i = 0; i < script.speech.size(); ++i)
        fs::remove(folder / ("line" + std::to_string(i) + ".wav"), ec);

    auto settings = MovieWriter::Settings::recording(partial, options.width, options.height, options.fps);
    settings.preset = options.preset;
    if (!sound.empty())
        settings.sound.push_back(MovieWriter::systemSoundTrack());
    auto writer = PLIM_TRY(MovieWriter::create(settings));

    int64_t soundWritten = 0;
    const int64_t soundFrames = static_cast<int64_t>(sound.size() / soundChannels);
    auto feedSound = [&](double until) -> Status {
        int64_t end = std::min(soundFrames, static_cast<int64_t>(until * soundSampleRate));
        if (end <= soundWritten)
            return {};
        PLIM_TRY(writer->appendAudio(0, sound.data() + soundWritten * soundChannels, end - soundWritten, soundWritten));
        soundWritten = end;
        return {};
    };
    auto drawn = drawDemoFrames(options, [&](const Image& picture, double t) -> Status {
        PLIM_TRY(writer->appendVideo(picture, t));
        return feedSound(t + 0.5);
    });
    if (drawn)
        drawn = feedSound(options.seconds > 0 ? std::min(options.seconds, script.duration) : script.duration);
    if (!drawn) {
        writer->cancel();
        fs::remove(partial, ec);
        return std::unexpected(drawn.error());
    }
    if (auto finished = writer->finish(); !finished) {
        fs::remove(partial, ec);
        return std::unexpected(finished.error());
    }
    fs::rename(partial, movie, ec);
    if (ec) {
        fs::remove(partial, ec);
        return fail("The demo movie could not be named " + movie.string() + " (" + ec.message()
            + "). Nothing was written; choose a folder you can write to.");
    }
    PLIM_TRY(demo::cursorTrack(script, options.width / demo::displayWidth).write(movie));
    PLIM_TRY(demo::keystrokeTrack(script).write(movie));
    return movie;
}

} // namespace plim
