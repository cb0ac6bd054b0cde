#pragma once
#include "app/plimctl.h"

namespace plim {
// plimctl demo <folder>
int runDemoCommand(const CtlArgs& args, std::ostream& out, std::ostream& err);
}
