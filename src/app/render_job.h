#pragma once
// The staging job for a plim on disk, shared by `plim --stage/--reframe` and
// `plimctl stage`: tracks and plan from beside the movie, and the look.

#include "app/plan_report.h"
#include "stage/staging_engine.h"

#include <iosfwd>

namespace plim {

// The job for a gathered plim: its plan and `spec`, worn in the look its edits carry (the
// look's card, backdrop, spotlight and clicks over `spec`; shape and switches as they are).
StagingJob renderJob(const PlanReport& report, StageSpec spec, bool reframe);

// Progress on one line per whole percent: "staging 42%".
StagingEngine::Progress percentLines(const std::string& label, std::ostream& out);

} // namespace plim
