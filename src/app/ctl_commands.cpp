#include "app/ctl_captions.h"
#include "app/ctl_captions_model.h"
#include "app/ctl_demo.h"
#include "app/ctl_live.h"
#include "app/ctl_plan.h"
#include "app/ctl_record.h"
#include "app/ctl_share.h"
#include "app/ctl_stage.h"
#include "app/ctl_suite.h"
#include "app/ctl_voiceover.h"
#include "app/plimctl.h"

namespace plim {

const std::vector<CtlCommand>& ctlCommands()
{
    static const std::vector<CtlCommand> commands = {
        {"beacon", "post a recording state, or watch an app's beacon", runBeaconCommand},
        {"captions", "transcribe a plim's speech into its captions file", runCaptionsCommand},
        {"captions-model", "download, pause, delete or check the Whisper model for better captions", runCaptionsModelCommand},
        {"demo", "write a made-up plim to try the other commands on", runDemoCommand},
        {"live", "compose the screen in real time into a camera sink or a movie", runLiveCommand},
        {"list", "list the plims in the library folder, newest first", runListCommand},
        {"moments", "print the suite's shared history, newest last", runMomentsCommand},
        {"plan", "print the edit plan a render of a plim would use", runPlanCommand},
        {"record", "record a display, a window or an area into a new plim", runRecordCommand},
        {"share", "share a plim as a movie, a GIF or a copy of the recording", runShareCommand},
        {"stage", "render a plim's staged movie, or one frame of it as a picture", runStageCommand},
        {"thumbs", "draw a plim's thumbnail strip and poster into B.thumbs.heic", runThumbsCommand},
        {"voiceover", "record narration from the microphone into a plim at a time of its edit", runVoiceoverCommand},
    };
    return commands;
}

} // namespace plim
