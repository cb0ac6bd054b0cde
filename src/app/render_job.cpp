#include "app/render_job.h"

#include "app/stage_cli.h"
#include "base/log.h"
#include "captions/caption_track.h"

#include <memory>
#include <ostream>

namespace plim {

StagingJob renderJob(const PlanReport& report, StageSpec spec, bool reframe)
{
    StagingJob job;
    job.movie = report.movie;
    job.cursor = report.track;
    job.keys = report.keys.value_or(KeystrokeTrack{});
    job.plan = report.plan;
    const PlimEdits* edits = report.chosen.edits ? &*report.chosen.edits : nullptr;
    auto captions = readPlimCaptions(report.movie, edits);
    for (const std::string& notice : captions.notices)
        logLine(LogArea::captions, notice);
    job.captions = captions.value.value_or(CaptionTrack{});
    job.spec = std::move(spec);
    if (report.chosen.edits && report.chosen.edits->look) {
        job.look = *report.chosen.edits->look;
        job.spec = wearing(std::move(job.spec), job.look);
        job.plan = job.plan.playing(job.look.deadAir);
    }
    job.reframe = reframe;
    return job;
}

StagingEngine::Progress percentLines(const std::string& label, std::ostream& out)
{
    auto last = std::make_shared<long>(-1);
    return [label, &out, last](const StagingProgress& p) {
        long percent = static_cast<long>(p.fraction() * 100);
        if (percent == *last)
            return;
        *last = percent;
        out << StageCLI::progressLine(label, p.fraction()) << "\n" << std::flush;
    };
}

} // namespace plim
