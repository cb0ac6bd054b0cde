#pragma once
#include "app/plimctl.h"
#include "app/recording_controller.h"
#include "live/live_session.h"

namespace plim {
// plimctl live --to pipewire|v4l2|file [OUT.mkv] [--duration S] [--x-display :N] [--display NAME] [--no-camera]
//              [--library FOLDER]
int runLiveCommand(const CtlArgs& args, std::ostream& out, std::ostream& err);

// What going live must know of the recorder: rolling (starting counts) or being finished.
RecordingActivity recordingActivity(RecordingController::Phase phase);
}
