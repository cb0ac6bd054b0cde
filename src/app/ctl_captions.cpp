#include "app/ctl_captions.h"

#include "app/interrupt_stop.h"
#include "base/files.h"
#include "base/text.h"
#include "captions/caption_engine_router.h"
#include "media/movie_reader.h"

#include <cmath>
#include <memory>
#include <ostream>

namespace plim {

static const char* captionsUsage =
    "usage: plimctl captions <movie> [--engine pocketsphinx|whisper] [--language CODE]\n\n"
    "Transcribes the plim's sound on this computer and writes its captions beside the movie\n"
    "(B.captions.json), pointing the plim's edits at them when it has edits. Progress and the\n"
    "engine used go to standard error. A pass that fails, times out or is stopped (Ctrl-C)\n"
    "leaves the previous captions file as it was.\n\n"
    "  --engine E     pocketsphinx (the built-in recognizer) or whisper (better captions; falls\n"
    "                 back to the built-in recognizer, saying why, when Whisper cannot run)\n"
    "                 default: whisper when better captions are on and the model is ready\n"
    "  --language L   the language spoken, such as en (the built-in recognizer knows US English)\n";

int runCaptionsCommand(const CtlArgs& args, std::ostream& out, std::ostream& err)
{
    auto options = parseCtlOptions(args, {"--engine", "--language"}, {}, "captions");
    if (!options) {
        err << options.error().sentence << "\n";
        return 1;
    }
    if (options->help) {
        out << captionsUsage;
        return 0;
    }
    if (options->positional.size() != 1) {
        err << "plimctl captions: name one plim's movie, for example plimctl captions ~/Videos/Plim/B.mov.\n";
        return 1;
    }
    std::optional<CaptionEngineKind> engine;
    if (auto text = options->last("--engine")) {
        engine = captionEngineFromText(*text);
        if (!engine) {
            err << "plimctl captions: \"" << escapedText(*text)
                << "\" is not a captions engine, so nothing was transcribed. Give --engine pocketsphinx or whisper.\n";
            return 1;
        }
    }
    const std::string language = options->last("--language").value_or("en");
    if (!isLanguageCode(language)) {
        err << "plimctl captions: \"" << escapedText(language)
            << "\" is not a language code, so nothing was transcribed. Give --language a code such as en or en-US.\n";
        return 1;
    }
    const fs::path movie = options->positional.front();
    auto reader = MovieReader::create(movie);
    if (!reader) {
        if (reader.error().kind == Error::Kind::missing)
            err << "plimctl captions: there is no movie at " << movie.string()
                << ". Nothing was written; check the path and try again.\n";
        else
            err << "plimctl captions: " << reader.error().sentence << " Nothing was written.\n";
        return 1;
    }
    const double duration = (*reader)->info().duration;
    reader->reset();

    CaptionEngineRouter router(builtInRouterParts(language));
    auto lastPercent = std::make_shared<long>(-1);
    auto progress = [&err, lastPercent](CaptionEngineKind kind, double fraction) {
        const long percent = static_cast<long>(std::floor(fraction * 100));
        if (percent / 5 == *lastPercent / 5)
            return;
        *lastPercent = percent;
        err << "transcribing " << percent << "% (" << captionEngineText(kind) << ")\n" << std::flush;
    };
    std::expected<CaptionEngineRouter::Pass, CaptionError> pass;
    {
        InterruptStop interrupt;
        pass = router.transcribe(movie, duration, progress, interrupt.token(), engine);
    }
    if (!pass) {
        err << "plimctl captions: " << pass.error().sentence() << "\n";
        return 1;
    }
    if (pass->notice)
        err << pass->notice.value() << "\n";
    err << "engine: " << captionEngineText(pass->engine) << "\n";
    auto written = pass->track.writeBeside(movie);
    if (!written) {
        err << "plimctl captions: " << written.error().sentence << "\n";
        return 1;
    }
    for (const std::string& notice : *written)
        err << notice << "\n";
    const size_t count = pass->track.lines.size();
    out << "wrote " << CaptionTrack::fileBeside(movie).string() << " (" << count << " line" << (count == 1 ? "" : "s")
        << ")\n";
    return 0;
}

} // namespace plim
