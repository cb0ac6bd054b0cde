#pragma once
#include "app/plimctl.h"

namespace plim {
// plimctl live --to pipewire|v4l2|file [OUT.mkv] [--duration S] [--x-display :N] [--display NAME] [--no-camera]
//              [--library FOLDER]
int runLiveCommand(const CtlArgs& args, std::ostream& out, std::ostream& err);
}
