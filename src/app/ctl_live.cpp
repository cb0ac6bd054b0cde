#include "app/ctl_live.h"

#include "app/interrupt_stop.h"
#include "base/places.h"
#include "library/look_store.h"
#include "live/camera_sinks.h"
#include "library/storage_root.h"
#include "live/live.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <ostream>
#include <thread>

namespace plim {

int runLiveCommand(const CtlArgs& args, std::ostream& out, std::ostream& err)
{
    auto parsed = parseCtlOptions(args, {"--to", "--duration", "--x-display", "--display", "--library"}, {"--no-camera"}, "live");
    if (!parsed) {
        err << parsed.error().sentence << "\n";
        return 1;
    }
    const CtlOptions& o = *parsed;
    if (o.help) {
        err << "usage: plimctl live --to pipewire|v4l2|file [OUT.mkv] [--duration SECONDS]\n"
               "       [--x-display :N] [--display NAME] [--no-camera] [--library FOLDER]\n"
               "Composes the screen in your look for new plims in real time and hands it to the sink;\n"
               "prints the sinks' health every half second. Stops after --duration, on Ctrl-C or SIGTERM.\n"
               "Refused while a plim is being recorded or finished in the library folder.\n";
        return 0;
    }
    const std::string to = o.last("--to").value_or("");
    if (to != "file" && to != "pipewire" && to != "v4l2") {
        err << "plimctl live: --to takes pipewire, v4l2 or file, not \"" << to << "\". Nothing went live.\n";
        return 1;
    }
    std::optional<double> duration;
    if (auto text = o.last("--duration")) {
        duration = parseSeconds(*text);
        if (!duration || !(*duration > 0)) {
            err << "plimctl live: --duration takes a number of seconds above 0, not \"" << *text << "\". Nothing went live.\n";
            return 1;
        }
    }
    std::vector<std::shared_ptr<LiveSink>> sinks;
    std::shared_ptr<FileLiveSink> file;
    if (to == "file") {
        if (o.positional.size() != 1) {
            err << "plimctl live: --to file needs the movie to write (OUT.mkv). Nothing went live.\n";
            return 1;
        }
        fs::path path = o.positional.front();
        std::error_code ec;
        if (fs::exists(path, ec)) {
            err << "plimctl live: " << path.string()
                << " already exists, and Plim does not write over it; it is left as it is. Name a new file. Nothing went live.\n";
            return 1;
        }
        file = std::make_shared<FileLiveSink>(path);
        sinks.push_back(file);
    } else if (to == "pipewire") {
        sinks.push_back(std::shared_ptr<LiveSink>(makePipeWireCameraSink()));
    } else {
        sinks.push_back(std::shared_ptr<LiveSink>(makeV4l2LoopbackSink()));
    }

    LookStore looks;
    if (looks.loadProblem())
        err << *looks.loadProblem() << "\n";
    LiveSessionOptions options;
    options.look = looks.newPlimLook().value_or(PlimLook{});
    if (o.has("--no-camera"))
        options.switches.bubble = false;
    if (auto display = o.last("--display"))
        options.subject = ScreenSubject::display(*display);
    options.progress = [&](const std::string& text) { err << text << "\n"; };

    LiveServices services;
    const std::optional<std::string> xDisplay = o.last("--x-display");
    services.openDesktop = [xDisplay] { return Desktop::create(xDisplay); };
    const fs::path library = o.last("--library").has_value() ? fs::path(*o.last("--library"))
                                                             : StorageRoot::direct(Places::home()).folder();
    services.recording = [library] { return recordingActivityIn(library); };
    LiveSession session(services);
    InterruptStop interrupt;
    if (auto live = session.goLive(options, sinks); !live) {
        err << live.error().sentence << "\n";
        return 1;
    }
    for (const std::string& notice : session.notices())
        err << notice << "\n";
    out << "live: " << sinks.front()->name() << "\n" << std::flush;

    const auto start = std::chrono::steady_clock::now();
    auto next = start;
    std::optional<std::string> ended;
    LivePipelineStats stats;
    for (;;) {
        next += std::chrono::milliseconds(500);
        while (std::chrono::steady_clock::now() < next && !interrupt.token().stop_requested())
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        LiveHealthReport report = session.refreshHealth();
        stats = report.stats;
        out << report.line << "\n";
        if (report.note)
            out << report.note.value() << "\n";
        out << std::flush;
        if (report.ended) {
            ended = report.ended;
            break;
        }
        if (interrupt.token().stop_requested())
            break;
        if (duration && std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() >= *duration)
            break;
    }
    if (session.pipeline())
        stats = session.pipeline()->stats();
    session.stop();
    const LiveBackpressure& b = stats.backpressure;
    out << "frames " << stats.framesDelivered << ", source starved " << b.sourceStarved << ", render overran "
        << b.renderOverran << ", pool exhausted " << b.poolExhausted << ", sink refused " << b.sinkRefused << "\n";
    if (ended) {
        err << *ended << "\n";
        return 1;
    }
    if (file) {
        auto finished = file->finished();
        if (finished && !*finished) {
            err << finished->error().sentence << "\n";
            return 1;
        }
        out << "wrote: " << file->framesWritten() << " frames to " << o.positional.front() << "\n";
    }
    return 0;
}

} // namespace plim
