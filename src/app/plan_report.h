#pragma once
// The plan a render of one plim would use, gathered once and printed by both
// `plim --stage` (until the renderer exists) and `plimctl plan`.

#include "capture/cursor_track.h"
#include "plan/edit_plan.h"

#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace plim {

struct PlanReport {
    std::filesystem::path movie;
    CursorTrack track;
    EditPlan plan;
    bool planFromFile = false;    // B.edits.json held a readable plan
    double rawDuration = 0;       // seconds of recording
    std::string durationSource;   // where rawDuration came from, for the printout
    std::vector<std::string> notices;
};

// Reads the cursor track (required) and the edit plan (absent or unreadable reads as an
// empty plan with its notice) beside `movie`. The recording's length comes from
// `duration` when given, else from the cursor track's last sample. Fails with the
// track's sentence.
Result<PlanReport> gatherPlan(const std::filesystem::path& movie, std::optional<double> duration = std::nullopt);

// Human-readable lines: trims, cuts, active skips with rates, zoom blocks, masks, the
// output duration through the time remap, and the notices.
void printPlan(const PlanReport& report, std::ostream& out);
Json planReportJson(const PlanReport& report);

} // namespace plim
