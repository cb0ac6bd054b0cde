#pragma once
// The plan a render of one plim would use, gathered once and printed by both
// `plim --stage` (until the renderer exists) and `plimctl plan`.

#include "capture/cursor_track.h"
#include "capture/keystroke_track.h"
#include "library/plim_edits.h"
#include "library/plim_plan.h"
#include "plan/auto_edit.h"
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
    std::optional<KeystrokeTrack> keys;
    PlimPlan chosen;              // the plan the plim gets, and why
    EditPlan plan;                // what is shown: the chosen plan, or the automatic edit with --auto
    double rawDuration = 0;       // seconds of recording
    std::string durationSource;   // where rawDuration came from, for the printout
    std::vector<std::string> notices;
};

// Reads the cursor track (required), the keystroke track and the plan the plim gets
// (PlimPlan::choose; its notices follow the tracks'). The recording's length comes from
// `duration` when given, else from the movie, else (a movie that cannot be read) from the
// cursor track's last sample. Fails with the track's sentence.
Result<PlanReport> gatherPlan(const std::filesystem::path& movie, std::optional<double> duration = std::nullopt);

// Human-readable lines: trims, cuts, active skips with rates, zoom blocks, masks, the
// output duration through the time remap, and the notices.
void printPlan(const PlanReport& report, std::ostream& out);
Json planReportJson(const PlanReport& report);

// The automatic edit of the plim: its proposal and the plan made from it.
struct AutoEditProposal {
    EditPlan plan;
    std::string summary; // "2 zooms where you clicked · dead air 4× faster · ends trimmed"
};
AutoEditProposal proposeAutoEdit(const PlanReport& report);

// Writes `plan` as the plim's edits, keeping the edits file's other keys. Refuses, leaving
// the file as it is, when the edits on disk could not be read whole or are of a newer format.
Status writePlanAsEdits(const PlanReport& report, const EditPlan& plan);

} // namespace plim
