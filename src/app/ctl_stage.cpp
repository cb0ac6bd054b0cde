#include "app/ctl_stage.h"

#include "app/plan_report.h"
#include "app/interrupt_stop.h"
#include "app/render_job.h"
#include "base/text.h"
#include "capture/desktop.h"
#include "library/look_store.h"
#include "stage/stage.h"

#include <cairo.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <ostream>

namespace plim {

namespace {

const char* stageUsage =
    "usage: plimctl stage <movie> [options]\n\n"
    "Renders the plim's staged movie (B.staged.mov) with its plan, in the look of B.stage.json\n"
    "when there is one, changed by the options below. Writes nothing but its output.\n\n"
    "  --backdrop LOOK      a name (graphite, slate, gradient, wallpaper, cobalt, ocean, plum, none),\n"
    "                       #RRGGBB, #RRGGBB,#RRGGBB for two colours, or image:PATH\n"
    "  --padding PX         space around the card (pixels of a 1280-wide canvas)\n"
    "  --corners PX         corner radius of the card\n"
    "  --shadow PERCENT     shadow strength\n"
    "  --click-style S      none, ring, pulse, spotlight, highlight\n"
    "  --click-tint T       white, cobalt, amber, green, magenta\n"
    "  --zoom-style S       smooth, snappy, glide, bouncy, instant, linear, whip, spring, drift, cut\n"
    "  --captions on|off    burn in the plim's captions (B.captions.json, or the file its edits name)\n"
    "  --caption-look L     pill, light, bold, minimal\n"
    "  --caption-size S     small, medium, large\n"
    "  --caption-place P    bottom, top\n"
    "  --shape S            16:9, 16:10, 9:16, 1:1\n"
    "  --size N             720, 1080 (default) or 2160 lines\n"
    "  --output PATH        where the movie goes (default beside the plim)\n"
    "  --reframe            the recording at its own size, no backdrop or card (B.reframe.mp4)\n"
    "  --auto               use the automatic edit instead of the plim's plan\n"
    "  --frame SECONDS      render only the output frame at this time ...\n"
    "  --png FILE           ... into this PNG picture\n";

std::optional<int> wholeNumber(const std::string& text)
{
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end || value < 0 || value > 100000)
        return std::nullopt;
    return static_cast<int>(value);
}

std::optional<StageSpec::Backdrop> backdropFromOption(const std::string& text)
{
    if (text.starts_with("image:"))
        return StageSpec::Backdrop::image(text.substr(6), 0);
    if (auto comma = text.find(','); comma != std::string::npos && text.starts_with("#"))
        return StageSpec::Backdrop::duo(text.substr(0, comma), text.substr(comma + 1));
    if (text.starts_with("#"))
        return StageSpec::Backdrop::solid(text);
    if (auto named = backdropNameFromText(text))
        return StageSpec::Backdrop::named(*named);
    return std::nullopt;
}

// "[#########-----------]  45%  540/1200 frames  12 s left", redrawn in place.
class ProgressBar {
public:
    explicit ProgressBar(std::ostream& err) : m_err(err), m_start(std::chrono::steady_clock::now()) {}

    void operator()(const StagingProgress& p)
    {
        auto now = std::chrono::steady_clock::now();
        if (p.frames < p.expected && now - m_drawn < std::chrono::milliseconds(100))
            return;
        m_drawn = now;
        double f = p.fraction();
        double elapsed = std::chrono::duration<double>(now - m_start).count();
        int filled = static_cast<int>(f * 30);
        std::string bar(static_cast<size_t>(filled), '#');
        bar.resize(30, '-');
        char line[160];
        std::snprintf(line, sizeof line, "\r[%s] %3d%%  %lld/%lld frames  %s", bar.c_str(), static_cast<int>(f * 100),
            static_cast<long long>(p.frames), static_cast<long long>(p.expected),
            f > 0.02 ? (std::to_string(static_cast<int>(std::ceil(elapsed / f - elapsed))) + " s left   ").c_str()
                     : "            ");
        m_err << line << std::flush;
    }

private:
    std::ostream& m_err;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_drawn{};
};

Status writePng(const Image& image, const std::string& path)
{
    cairo_surface_t* surface = cairo_image_surface_create_for_data(image.pixels.get(), CAIRO_FORMAT_ARGB32, image.width,
        image.height, static_cast<int>(image.stride));
    cairo_status_t status = cairo_surface_write_to_png(surface, path.c_str());
    cairo_surface_destroy(surface);
    if (status != CAIRO_STATUS_SUCCESS)
        return fail("plimctl stage: the picture could not be written to " + path + " ("
            + cairo_status_to_string(status) + "). Nothing else was written; choose a folder you can write to.");
    return {};
}

} // namespace

std::optional<Problem> applyStageLook(const CtlOptions& options, StageSpec& spec, PlimLook& look, const std::string& command)
{
    auto bad = [&](const std::string& option, const std::string& value, const std::string& choices) {
        return Problem{"plimctl " + command + ": \"" + value + "\" is not a choice for " + option + ". Use " + choices
            + "; nothing was rendered."};
    };
    if (auto v = options.last("--backdrop")) {
        auto backdrop = backdropFromOption(*v);
        if (!backdrop)
            return bad("--backdrop", *v, "a backdrop name, #RRGGBB, #RRGGBB,#RRGGBB or image:PATH");
        if (auto usable = checkBackdrop(*backdrop); !usable)
            return Problem{"plimctl " + command + ": the backdrop \"" + escapedText(*v) + "\" cannot be used. "
                + usable.error().sentence + " Nothing was rendered; choose a backdrop name, a colour or a PNG, JPEG "
                  "or WebP picture."};
        spec.backdrop = *backdrop;
        if (spec.card)
            spec.card->backdrop.reset(); // the backdrop asked for wins over the look's
        // A picture from anywhere is drawn from Plim's own copy of it.
        if (auto* image = std::get_if<StageSpec::Backdrop::Image>(&spec.backdrop.value)) {
            auto kept = LookStore::keepBackdropPicture(image->path);
            if (!kept)
                return Problem{"plimctl " + command + ": " + kept.error().sentence};
            image->path = kept->string();
        }
    }
    struct Number {
        const char* option;
        int* field;
        int largest;
    };
    for (auto [option, field, largest] : {Number{"--padding", &spec.paddingPX, StageSpec::largestPaddingPX},
             Number{"--corners", &spec.cornersPX, StageSpec::largestCornersPX},
             Number{"--shadow", &spec.shadowPercent, StageSpec::largestShadowPercent}}) {
        if (auto v = options.last(option)) {
            auto n = wholeNumber(*v);
            if (!n || *n > largest)
                return bad(option, *v, "a whole number from 0 to " + std::to_string(largest));
            *field = *n;
            spec.card.reset(); // the pixel settings win over a proportional card look
        }
    }
    if (auto v = options.last("--click-style")) {
        auto style = clickStyleFromText(*v);
        if (!style)
            return bad("--click-style", *v, "none, ring, pulse, spotlight or highlight");
        spec.clickStyle = *style;
    }
    if (auto v = options.last("--click-tint")) {
        auto tint = clickTintFromText(*v);
        if (!tint)
            return bad("--click-tint", *v, "white, cobalt, amber, green or magenta");
        spec.clickTint = *tint;
    }
    if (auto v = options.last("--zoom-style")) {
        auto style = zoomStyleFromText(*v);
        if (!style)
            return bad("--zoom-style", *v, "smooth, snappy, glide, bouncy, instant, linear, whip, spring, drift or cut");
        spec.zoomStyle = *style;
    }
    if (auto v = options.last("--captions")) {
        if (*v != "on" && *v != "off")
            return bad("--captions", *v, "on or off");
        look.captions = *v == "on";
    }
    if (auto v = options.last("--caption-look")) {
        auto value = captionLookFromText(*v);
        if (!value)
            return bad("--caption-look", *v, "pill, light, bold or minimal");
        spec.captionLook = *value;
    }
    if (auto v = options.last("--caption-size")) {
        auto value = captionSizeFromText(*v);
        if (!value)
            return bad("--caption-size", *v, "small, medium or large");
        spec.captionSize = *value;
    }
    if (auto v = options.last("--caption-place")) {
        auto value = captionPlaceFromText(*v);
        if (!value)
            return bad("--caption-place", *v, "bottom or top");
        spec.captionPlace = *value;
    }
    if (auto v = options.last("--shape")) {
        auto shape = PlimLook::shapeFromText(*v);
        if (!shape || *shape == PlimLook::Shape::iPhone)
            return bad("--shape", *v, "16:9, 16:10, 9:16 or 1:1");
        look.shape = *shape;
    }
    return std::nullopt;
}

int runStageCommand(const CtlArgs& args, std::ostream& out, std::ostream& err)
{
    auto options = parseCtlOptions(args,
        [] {
            auto names = stageLookOptions();
            names.insert({"--size", "--output", "--frame", "--png"});
            return names;
        }(),
        {"--reframe", "--auto"}, "stage");
    if (!options) {
        err << options.error().sentence << "\n";
        return 1;
    }
    if (options->help) {
        out << stageUsage;
        return 0;
    }
    if (options->positional.size() != 1) {
        err << "plimctl stage: name one plim's movie, for example plimctl stage demo/Demo.mov.\n";
        return 1;
    }
    auto report = gatherPlan(options->positional.front());
    if (!report) {
        err << "plimctl stage: " << report.error().sentence << "\n";
        return 1;
    }
    for (const auto& notice : report->notices)
        err << "notice: " << notice << "\n";
    if (options->has("--auto"))
        report->plan = proposeAutoEdit(*report).plan;

    // The stage look beside the movie when there is one; the default look otherwise.
    StageSpec spec;
    if (auto stored = StageSpecFile::read(sidecarPath(report->movie, PlimFiles::stage))) {
        spec = stored->value;
        for (const auto& notice : stored->notices)
            err << "notice: " << notice << "\n";
    } else if (stored.error().kind != Error::Kind::missing) {
        err << "notice: " << stored.error().sentence << "\n";
    }
    StagingJob job = renderJob(*report, spec, options->has("--reframe"));
    if (auto problem = applyStageLook(*options, job.spec, job.look, "stage")) {
        err << problem->sentence << "\n";
        return 1;
    }
    if (auto v = options->last("--size")) {
        auto n = wholeNumber(*v);
        auto quality = n ? RenderRules::qualityFromShortSide(*n) : std::nullopt;
        if (!quality) {
            err << "plimctl stage: \"" << *v << "\" is not an output size. Use 720, 1080 or 2160; nothing was rendered.\n";
            return 1;
        }
        job.quality = *quality;
    }
    if (auto v = options->last("--output"))
        job.output = *v;
    // Nothing is rendered over the plim's own files.
    std::vector<fs::path> named;
    if (report->chosen.edits) {
        for (const auto& voice : report->chosen.edits->voiceovers)
            named.push_back(report->movie.parent_path() / voice.file);
        if (report->chosen.edits->captionsFile)
            named.push_back(report->movie.parent_path() / *report->chosen.edits->captionsFile);
    }
    auto refused = [&](const std::optional<std::string>& output, const std::optional<fs::path>& mayReplace) {
        if (!output)
            return false;
        auto own = refuseOwnFile(*output, report->movie, named, mayReplace);
        if (!own)
            err << "plimctl stage: " << own.error().sentence << "\n";
        return !own;
    };
    if (refused(options->last("--output"), StagingEngine::defaultOutput(report->movie, job.reframe))
        || refused(options->last("--png"), std::nullopt))
        return 1;
    if (std::holds_alternative<StageSpec::Backdrop::Named>(job.spec.backdrop.value)
        && job.spec.backdrop.name() == StageSpec::Backdrop::Named::wallpaper)
        job.wallpaper = desktopWallpaper();
    if (auto why = backdropFallback(job.spec, job.wallpaper))
        err << "notice: " << *why << "\n";

    auto frameAt = options->last("--frame");
    auto png = options->last("--png");
    if (frameAt || png) {
        char* end = nullptr;
        double t = frameAt ? std::strtod(frameAt->c_str(), &end) : 0;
        if (!frameAt || !png || frameAt->empty() || *end || !std::isfinite(t) || t < 0) {
            err << "plimctl stage: --frame takes a time in seconds of the output and goes with --png FILE, "
                   "for example --frame 4.5 --png frame.png; nothing was rendered.\n";
            return 1;
        }
        auto picture = StagingEngine::frame(job, t);
        if (!picture) {
            err << "plimctl stage: " << picture.error().sentence << "\n";
            return 1;
        }
        if (auto written = writePng(*picture, *png); !written) {
            err << written.error().sentence << "\n";
            return 1;
        }
        out << *png << "\n";
        return 0;
    }

    StagingEngine::Progress progress;
    if (isatty(STDERR_FILENO))
        progress = ProgressBar(err);
    auto outcome = [&] {
        InterruptStop interrupt;
        return StagingEngine::stage(job, progress, interrupt.token());
    }();
    if (progress)
        err << "\n";
    if (outcome.isStopped()) {
        err << outcome.sentence << "\n";
        return 1;
    }
    if (!outcome.isFinished()) {
        err << "plimctl stage: " << outcome.sentence << "\n";
        return 1;
    }
    out << (job.reframe ? "reframed: " : "staged: ") << outcome.value.stagedURL.string() << "\n";
    return 0;
}

} // namespace plim
