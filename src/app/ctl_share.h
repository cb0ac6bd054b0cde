#pragma once
#include "app/plimctl.h"

namespace plim {
// plimctl share <movie> [--kind video|gif|original] [--quality 720p|1080p|4K|Small|Medium|Large]
//                       [--to FOLDER | --copy] [stage look options]
int runShareCommand(const CtlArgs& args, std::ostream& out, std::ostream& err);
// plimctl list [--folder FOLDER] [--json]
int runListCommand(const CtlArgs& args, std::ostream& out, std::ostream& err);
// plimctl thumbs <movie> [--poster-only]
int runThumbsCommand(const CtlArgs& args, std::ostream& out, std::ostream& err);
}
