#include "app/plan_report.h"

#include "plan/time_remap.h"

#include <cstdio>
#include <ostream>

namespace plim {

static std::string seconds(double s)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.3fs", s);
    return buffer;
}

// The recording's length as the pointer track knows it: its last sample, clock-aligned to
// the movie by the video start offset.
static double durationFromTrack(const CursorTrack& track)
{
    int64_t last = 0;
    if (!track.samples.empty())
        last = track.samples.back().t;
    if (!track.clicks.empty())
        last = std::max(last, track.clicks.back().t);
    return std::max(0.0, static_cast<double>(last - track.videoStartOffsetMS) / 1000.0);
}

Result<PlanReport> gatherPlan(const std::filesystem::path& movie, std::optional<double> duration)
{
    PlanReport report;
    report.movie = movie;
    auto track = CursorTrack::read(movie);
    if (!track)
        return fail(track.error().sentence);
    report.track = std::move(*track);

    size_t noticesBefore = PlanNoticeBatch::recent().size();
    {
        PlanNoticeBatch batch;
        if (auto plan = EditPlan::decodeBesideMovie(movie)) {
            report.plan = std::move(*plan);
            report.planFromFile = true;
        }
    }
    auto recent = PlanNoticeBatch::recent();
    if (recent.size() > noticesBefore)
        report.notices.assign(recent.begin() + static_cast<long>(noticesBefore), recent.end());

    if (duration) {
        report.rawDuration = *duration;
        report.durationSource = "given";
    } else {
        report.rawDuration = durationFromTrack(report.track);
        report.durationSource = "from the cursor track";
    }
    return report;
}

void printPlan(const PlanReport& r, std::ostream& out)
{
    const EditPlan& plan = r.plan;
    out << "plim: " << r.movie.string() << "\n";
    out << "plan: " << (r.planFromFile ? sidecarPath(r.movie, "edits.json").string() : std::string("none (empty plan)"))
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
        char rate[32];
        std::snprintf(rate, sizeof rate, "%gx", skip.rate);
        out << "skip: " << seconds(skip.span.start) << " to " << seconds(skip.span.end) << " at " << rate << "\n";
    }
    for (auto& zoom : plan.zooms) {
        char line[160];
        std::snprintf(line, sizeof line, "zoom: %.3fs to %.3fs, %.2fx at (%.3f, %.3f)", zoom.start, zoom.end, zoom.scale,
            zoom.centerX, zoom.centerY);
        out << line << (zoom.style ? ", " + *zoom.style : "") << "\n";
    }
    for (auto& mask : plan.masks) {
        char line[160];
        std::snprintf(line, sizeof line, "mask: %.3fs to %.3fs, %s at (%.3f, %.3f) %.3f x %.3f", mask.start, mask.end,
            std::string(MaskRegion::rawValue(mask.style)).c_str(), mask.x, mask.y, mask.w, mask.h);
        out << line << "\n";
    }
    out << "output: " << seconds(TimeRemap::of(plan, r.rawDuration).outputDuration(r.rawDuration)) << "\n";
    for (auto& notice : r.notices)
        out << "notice: " << notice << "\n";
}

Json planReportJson(const PlanReport& r)
{
    Json j = Json::object();
    j["movie"] = r.movie.string();
    j["planFromFile"] = r.planFromFile;
    j["rawDuration"] = r.rawDuration;
    j["outputDuration"] = TimeRemap::of(r.plan, r.rawDuration).outputDuration(r.rawDuration);
    j["plan"] = r.plan.toJson();
    j["notices"] = r.notices;
    return j;
}

} // namespace plim
