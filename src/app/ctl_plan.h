#pragma once
#include "app/plimctl.h"

namespace plim {
// plimctl plan <movie> [--duration S] [--json]
int runPlanCommand(const CtlArgs& args, std::ostream& out, std::ostream& err);
}
