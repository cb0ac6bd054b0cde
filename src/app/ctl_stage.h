#pragma once
#include "app/plimctl.h"
#include "library/plim_look.h"
#include "stage/stage_spec.h"

#include <optional>
#include <set>
#include <string>

namespace plim {
// plimctl stage <movie> [look options] [--size 720|1080|2160] [--output PATH] [--reframe]
//                       [--auto] [--frame SECONDS --png FILE]
int runStageCommand(const CtlArgs& args, std::ostream& out, std::ostream& err);

// The stage look options `plimctl stage` and `plimctl share` both take.
inline std::set<std::string> stageLookOptions()
{
    return {"--backdrop", "--padding", "--corners", "--shadow", "--click-style", "--click-tint", "--zoom-style",
        "--captions", "--caption-look", "--caption-size", "--caption-place", "--shape"};
}
struct Problem {
    std::string sentence;
};
// Applies those options over `spec` and `look`; a value that is not understood is a
// sentence naming `command`.
std::optional<Problem> applyStageLook(const CtlOptions& options, StageSpec& spec, PlimLook& look, const std::string& command);
}
