#pragma once
#include "app/plimctl.h"

namespace plim {
// plimctl voiceover <movie> [--at T] [--duration S] [--device SOURCE] [--library FOLDER]
int runVoiceoverCommand(const CtlArgs& args, std::ostream& out, std::ostream& err);
}
