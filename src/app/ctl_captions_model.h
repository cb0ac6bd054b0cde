#pragma once
// plimctl captions-model: the Whisper model behind better captions.

#include "captions/caption_model_downloader.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace plim {

// plimctl captions-model download|pause|delete|status [--size base|small]
// download fetches (or resumes) the size into $XDG_DATA_HOME/plim/CaptionModels with a
// progress bar; Ctrl-C pauses it, and `pause` from another terminal does the same. The
// files come from PLIM_MODEL_BASE_URL when it is set (a mirror or a test server).
int runCaptionsModelCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// What the command and the settings pane download with: libcurl and the model's one-time
// preparation.
CaptionModelServices captionModelServices();

} // namespace plim
