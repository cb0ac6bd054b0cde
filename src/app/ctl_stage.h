#pragma once
#include "app/plimctl.h"

namespace plim {
// plimctl stage <movie> [look options] [--size 720|1080|2160] [--output PATH] [--reframe]
//                       [--auto] [--frame SECONDS --png FILE]
int runStageCommand(const CtlArgs& args, std::ostream& out, std::ostream& err);
}
