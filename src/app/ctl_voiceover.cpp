#include "app/ctl_voiceover.h"

#include "app/interrupt_stop.h"
#include "app/voiceover_recorder.h"
#include "app/voiceover_salvage.h"
#include "app/voiceover_take.h"
#include "base/places.h"
#include "library/plim_document.h"
#include "library/storage_root.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ostream>
#include <thread>

namespace plim {

namespace {

const char* voiceoverUsage =
    "usage: plimctl voiceover <movie> [--at T] [--duration S] [--device SOURCE] [--library FOLDER]\n\n"
    "Records narration from the microphone for the plim, starting at second T of its edit (as\n"
    "the editor's playhead shows it; default 0), for S seconds or until Ctrl-C. The take is kept\n"
    "in the library's Voiceovers folder while it records, then lands beside the movie and joins\n"
    "the plim's edits as a voiceover, with the recording's sound ducked under it when shared.\n\n"
    "  --at T            where the narration starts, in seconds of the edited plim\n"
    "  --duration S      stop after S seconds (default: Ctrl-C stops)\n"
    "  --device SOURCE   the microphone, as the sound server names it (default: its default source)\n"
    "  --library FOLDER  the library folder whose Voiceovers folder holds takes in progress\n";

std::string tenths(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%d:%04.1f", int(seconds) / 60, std::fmod(seconds, 60.0));
    return text;
}

// A level meter of ten cells.
std::string meter(float level)
{
    std::string bar;
    const int lit = int(std::lround(std::clamp(level, 0.0f, 1.0f) * 10));
    for (int i = 0; i < 10; ++i)
        bar += i < lit ? "#" : ".";
    return bar;
}

} // namespace

int runVoiceoverCommand(const CtlArgs& args, std::ostream& out, std::ostream& err)
{
    auto options = parseCtlOptions(args, {"--at", "--duration", "--device", "--library"}, {}, "voiceover");
    if (!options) {
        err << options.error().sentence << "\n";
        return 1;
    }
    if (options->help) {
        out << voiceoverUsage;
        return 0;
    }
    if (options->positional.size() != 1) {
        err << "plimctl voiceover: name one plim's movie, for example plimctl voiceover demo/Demo.mov --at 4. Nothing "
               "was recorded.\n";
        return 1;
    }
    const fs::path movie = options->positional.front();
    double at = 0;
    if (auto text = options->last("--at")) {
        auto value = parseSeconds(*text);
        if (!value || *value < 0) {
            err << "plimctl voiceover: --at takes the seconds of the edited plim where the narration starts, such as "
                   "4.5, not \"" << *text << "\". Nothing was recorded.\n";
            return 1;
        }
        at = *value;
    }
    std::optional<double> duration;
    if (auto text = options->last("--duration")) {
        duration = parseSeconds(*text);
        if (!duration || !(*duration > 0)) {
            err << "plimctl voiceover: --duration takes a number of seconds above 0, not \"" << *text
                << "\". Nothing was recorded.\n";
            return 1;
        }
    }
    const fs::path library = options->last("--library") ? fs::path(*options->last("--library"))
                                                       : StorageRoot::direct(Places::home()).folder();
    for (const auto& sentence : salvageVoiceoverTakes(library))
        err << sentence << "\n";

    auto document = openPlimForVoiceover(movie);
    if (!document) {
        err << document.error().sentence << " No voiceover was recorded.\n";
        return 1;
    }
    PlimDocument& plim = **document;
    const double outputLength = plim.edits().plan.playing(plim.edits().look.value_or(PlimLook{}).deadAir)
                                    .clipTimeline(plim.duration()).outputDuration();
    if (at >= outputLength) {
        err << "plimctl voiceover: the edited plim is " << tenths(outputLength) << " long, so the narration cannot start at "
            << tenths(at) << ". Nothing was recorded.\n";
        return 1;
    }
    VoiceoverRecorder::Settings settings;
    settings.libraryFolder = library;
    settings.movie = movie;
    settings.sourceStart = voiceoverSourceTime(plim.edits(), plim.duration(), at);
    settings.device = options->last("--device");
    settings.maxSeconds = duration;

    InterruptStop interrupt;
    auto recorder = VoiceoverRecorder::start(settings);
    if (!recorder) {
        err << recorder.error().sentence << "\n";
        return 1;
    }
    err << "Recording a voiceover for " << movie.filename().string() << " from " << tenths(at)
        << (duration ? "" : "; Ctrl-C stops") << ".\n" << std::flush;
    std::optional<std::string> trouble;
    auto lastTick = std::chrono::steady_clock::now() - std::chrono::seconds(1);
    while (!interrupt.token().stop_requested()) {
        const double seconds = (*recorder)->seconds();
        if (duration && seconds >= *duration)
            break;
        if (!trouble && (trouble = (*recorder)->trouble()))
            err << "\n" << *trouble << "\n";
        auto now = std::chrono::steady_clock::now();
        if (now - lastTick >= std::chrono::milliseconds(250)) {
            lastTick = now;
            err << "\rRecording " << tenths(seconds) << "  " << meter((*recorder)->level()) << std::flush;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    err << "\n";
    auto voice = (*recorder)->finish(plim);
    if (!voice) {
        err << voice.error().sentence << "\n";
        return 1;
    }
    const fs::path landed = movie.parent_path() / voice->file;
    out << landed.string() << "\n";
    char length[32];
    std::snprintf(length, sizeof length, "%.1f s", voice->duration);
    err << "The voiceover landed at " << landed.string() << " (" << length << "), and joined the plim's edits at "
        << tenths(at) << " of the edit (" << tenths(voice->start) << " of the recording).\n";
    return trouble ? 2 : 0;
}

} // namespace plim
