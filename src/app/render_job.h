#pragma once
// The staging job for a plim on disk, shared by `plim --stage/--reframe` and
// `plimctl stage`: tracks and plan from beside the movie, and the look.

#include "app/plan_report.h"
#include "stage/staging_engine.h"

#include <iosfwd>

namespace plim {

// The job for a gathered plim: its plan, its look from the edits (default otherwise) and
// `spec`.
StagingJob renderJob(const PlanReport& report, StageSpec spec, bool reframe);

// Progress on one line per whole percent: "staging 42%".
StagingEngine::Progress percentLines(const std::string& label, std::ostream& out);

} // namespace plim
