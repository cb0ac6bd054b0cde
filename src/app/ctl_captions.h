#pragma once
#include "app/plimctl.h"

namespace plim {
// plimctl captions <movie> [--engine pocketsphinx|whisper] [--language en]
int runCaptionsCommand(const CtlArgs& args, std::ostream& out, std::ostream& err);
}
