#include "app/plan_report.h"
#include "app/interrupt_stop.h"
#include "app/render_job.h"
#include "app/stage_cli.h"
#include "capture/desktop.h"
#include "stage/stage.h"

#include <chrono>
#include <ostream>

namespace plim::StageCLI {

int run(const RenderRequest& request, std::ostream& out, std::ostream& err)
{
    const auto started = std::chrono::steady_clock::now();
    const std::string verb = label(request.reframe);
    auto report = gatherPlan(request.movie);
    if (!report) {
        err << failureLine(verb, report.error().sentence) << "\n";
        return 1;
    }
    for (const auto& notice : report->notices)
        err << "notice: " << notice << "\n";

    // The default stage over the desktop's own picture.
    StageSpec spec;
    spec.backdrop = StageSpec::Backdrop::named(StageSpec::Backdrop::Named::wallpaper);
    StagingJob job = renderJob(*report, spec, request.reframe);
    job.wallpaper = desktopWallpaper();

    auto outcome = [&] {
        InterruptStop interrupt;
        return StagingEngine::stage(job, percentLines(verb, out), interrupt.token());
    }();
    if (!outcome.isFinished()) {
        err << failureLine(verb, outcome.sentence) << "\n";
        return 1;
    }
    const auto& result = outcome.value;
    // The plan as the user made it goes back, whatever the look played of it.
    if (auto kept = report->chosen.keepPlanUsed(report->movie, report->plan); !kept)
        err << "notice: " << kept.error().sentence << "\n";
    else if (!kept->empty())
        err << "notice: " << *kept << "\n";
    out << (request.reframe ? "reframed: " : "staged: ") << result.stagedURL.string() << "\n";

    RenderSummary summary;
    summary.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    summary.movieDuration = result.rawDuration;
    summary.outputDuration = result.outputDuration;
    summary.zooms = static_cast<int>(result.plan.zooms.size());
    summary.activeSkips = static_cast<int>(result.plan.activeSkips().size());
    summary.cuts = static_cast<int>(result.plan.cuts.size());
    summary.trimIn = result.plan.trimIn;
    summary.trimOut = result.plan.trimOut;
    out << summaryLine(summary) << "\n";
    return 0;
}

} // namespace plim::StageCLI
