#include "app/ctl_plan.h"

#include "app/plan_report.h"

#include <cmath>
#include <ostream>

namespace plim {

static const char* planUsage =
    "usage: plimctl plan <movie> [--duration SECONDS] [--auto] [--write] [--json]\n\n"
    "Prints the edit plan a render of the plim would use: trims, cuts, active skips with\n"
    "their rates, zoom blocks, masks, the output duration and any notices about the edits\n"
    "file. A plim without an edits file, or whose edits file cannot be used, gets its automatic\n"
    "edit, as every render does; an edits file is never changed unless --write asks.\n\n"
    "  --duration SECONDS  the recording's length (default: the movie's, else from the cursor track)\n"
    "  --auto              propose the automatic edit even when the plim has edits\n"
    "  --write             save the plan shown as the plim's edits (B.edits.json)\n"
    "  --json              print the plan as JSON\n";

int runPlanCommand(const CtlArgs& args, std::ostream& out, std::ostream& err)
{
    auto options = parseCtlOptions(args, {"--duration"}, {"--auto", "--write", "--json"}, "plan");
    if (!options) {
        err << options.error().sentence << "\n";
        return 1;
    }
    if (options->help) {
        out << planUsage;
        return 0;
    }
    if (options->positional.size() != 1) {
        err << "plimctl plan: name one plim's movie, for example plimctl plan ~/Videos/Plim/B.mov.\n";
        return 1;
    }
    std::string movie = options->positional.front();
    std::optional<double> duration;
    if (auto text = options->last("--duration")) {
        char* end = nullptr;
        double value = std::strtod(text->c_str(), &end);
        if (text->empty() || *end || !std::isfinite(value) || value < 0) {
            err << "plimctl plan: \"" << *text << "\" is not a length in seconds. Give --duration a number such as 62.5.\n";
            return 1;
        }
        if (value > longestRecordingSeconds) {
            err << "plimctl plan: " << *text << " seconds is longer than a recording can be (at most "
                << longestRecordingSeconds / 3600 << " hours), so nothing was planned. Give --duration the "
                << "recording's length in seconds, or leave it out to take the movie's.\n";
            return 1;
        }
        duration = value;
    }
    const bool json = options->has("--json"), automatic = options->has("--auto"), write = options->has("--write");
    auto report = gatherPlan(movie, duration);
    if (!report) {
        err << "plimctl plan: " << report.error().sentence << "\n";
        return 1;
    }
    std::optional<std::string> summary;
    if (automatic) {
        auto proposal = proposeAutoEdit(*report);
        report->plan = proposal.plan;
        summary = proposal.summary;
    } else if (report->chosen.source != PlimPlan::Source::edits) {
        summary = report->chosen.automaticSummary;
    }
    if (json) {
        Json j = planReportJson(*report);
        if (summary)
            j["automaticEdit"] = *summary;
        out << encodeJson(j);
    } else {
        if (summary)
            out << "automatic edit: " << (summary->empty() ? std::string("nothing to change") : *summary) << "\n";
        printPlan(*report, out);
    }
    if (write) {
        if (auto written = writePlanAsEdits(*report, report->plan); !written) {
            err << "plimctl plan: " << written.error().sentence << "\n";
            return 1;
        }
        err << "wrote " << sidecarPath(report->movie, PlimFiles::edits).string() << "\n";
    }
    return 0;
}

} // namespace plim
