#include "app/plan_report.h"
#include "base/text.h"

#include "capture/capture.h"
#include "media/movie_reader.h"
#include "plan/plan.h"

#include <cstdio>
#include <ostream>

namespace plim {

static std::string seconds(double s) { return numberText(s, 3) + "s"; }

// The recording's length as the pointer track knows it: its last sample, clock-aligned to
// the movie by the video start offset.
static double durationFromTrack(const CursorTrack& track)
{
    int64_t last = 0;
    if (!track.samples.empty())
        last = track.samples.back().t;
    if (!track.clicks.empty())
        last = std::max(last, track.clicks.back().t);
    return std::max(0.0, TrackPlacement(track).movieSeconds(last));
}

Result<PlanReport> gatherPlan(const std::filesystem::path& movie, std::optional<double> duration)
{
    if (!movie.has_filename())
        return fail("No movie was named (the path \"" + escapedText(movie.string())
            + "\" ends without a file name), so nothing was read or changed. Name a plim's movie, for example "
              "~/Videos/Plim/B.mov.");
    PlanReport report;
    report.movie = movie;
    auto track = CursorTrack::read(movie);
    if (!track)
        return fail(track.error().sentence);
    report.track = std::move(track->value);
    report.notices = std::move(track->notices);

    if (auto keys = KeystrokeTrack::read(movie)) {
        report.keys = std::move(keys->value);
        appendNotices(report.notices, std::move(keys->notices));
    }

    // The movie's own length when it can be read: a pointer track may run longer than the
    // movie (or belong to another take), and an automatic edit sized by it trims past the end.
    auto reader = duration ? nullptr : MovieReader::create(movie).value_or(nullptr);
    if (duration) {
        report.rawDuration = *duration;
        report.durationSource = "given";
    } else if (reader && reader->info().duration > 0) {
        report.rawDuration = reader->info().duration;
        report.durationSource = "from the movie";
    } else {
        report.rawDuration = durationFromTrack(report.track);
        report.durationSource = "from the cursor track";
    }
    report.chosen = PlimPlan::choose(movie, &report.track, report.keys ? &*report.keys : nullptr, report.rawDuration);
    report.plan = report.chosen.plan;
    appendNotices(report.notices, report.chosen.notices);
    return report;
}

void printPlan(const PlanReport& r, std::ostream& out)
{
    const EditPlan& plan = r.plan;
    out << "plim: " << r.movie.string() << "\n";
    out << "edits: " << (r.chosen.source == PlimPlan::Source::edits ? sidecarPath(r.movie, PlimFiles::edits).string()
                                                                     : std::string("none usable"))
        << "\n";
    out << "recording: " << seconds(r.rawDuration) << " (" << r.durationSource << ")\n";
    if (plan.trimIn || plan.trimOut)
        out << "trim: " << seconds(plan.trimIn.value_or(0)) << " to " << seconds(plan.trimOut.value_or(r.rawDuration))
            << "\n";
    if (plan.clips)
        out << "clips: " << plan.clips->size() << "\n";
    for (auto& cut : plan.cuts)
        out << "cut: " << seconds(cut.start) << " to " << seconds(cut.end)
            << (cut.transition ? " with " + std::string(TransitionSpec::rawValue(cut.transition->kind)) : "") << "\n";
    for (auto& skip : plan.activeSegments()) {
        out << "skip: " << seconds(skip.span.start) << " to " << seconds(skip.span.end) << " at "
            << numberText(skip.rate, 2) << "x\n";
    }
    for (auto& zoom : plan.zooms)
        out << "zoom: " << seconds(zoom.start) << " to " << seconds(zoom.end) << ", " << numberText(zoom.scale, 2)
            << "x at (" << numberText(zoom.centerX, 3) << ", " << numberText(zoom.centerY, 3) << ")"
            << (zoom.style ? ", " + escapedText(*zoom.style) : "") << "\n";
    for (auto& mask : plan.masks)
        out << "mask: " << seconds(mask.start) << " to " << seconds(mask.end) << ", " << MaskRegion::rawValue(mask.style)
            << " at (" << numberText(mask.x, 3) << ", " << numberText(mask.y, 3) << ") " << numberText(mask.w, 3)
            << " x " << numberText(mask.h, 3) << "\n";
    out << "output: " << seconds(TimeRemap::of(plan, r.rawDuration).outputDuration(r.rawDuration)) << "\n";
    for (auto& notice : r.notices)
        out << "notice: " << notice << "\n";
}

Json planReportJson(const PlanReport& r)
{
    Json j = Json::object();
    j["movie"] = r.movie.string();
    j["planFromFile"] = r.chosen.source == PlimPlan::Source::edits;
    j["rawDuration"] = r.rawDuration;
    j["outputDuration"] = TimeRemap::of(r.plan, r.rawDuration).outputDuration(r.rawDuration);
    j["plan"] = r.plan.toJson();
    j["notices"] = r.notices;
    return j;
}

AutoEditProposal proposeAutoEdit(const PlanReport& report)
{
    auto [plan, summary] = PlimPlan::automaticEdit(&report.track, report.keys ? &*report.keys : nullptr, report.rawDuration);
    return {std::move(plan), std::move(summary)};
}

Status writePlanAsEdits(const PlanReport& report, const EditPlan& plan)
{
    if (!report.chosen.editsMayBeRewritten())
        return fail("The edits in " + sidecarPath(report.movie, PlimFiles::edits).string() + " could not be "
            + (report.chosen.readInPart ? "read whole" : "used") + ", so the new plan was not written and that file "
            "was left exactly as it is. Move it aside (or open the plim in a Plim that reads it) and run the command "
            "again.");
    PlimEdits edits = report.chosen.edits.value_or(PlimEdits{});
    edits.plan = plan;
    return edits.write(report.movie, plimNameAndVersion());
}

} // namespace plim
