#pragma once
// The sound of a share under its edit: the recording's sound cut with the picture, its
// sped-up stretches time-stretched, and the voiceovers where they play.

#include "media/sound_mix.h"
#include "plan/edit_plan.h"

#include <vector>

namespace plim {

// A voiceover in output time.
struct VoiceoverSlot {
    double start = 0;     // seconds
    double duration = 0;  // seconds
    double micUnder = 1;  // gain on the recording while it plays
};

// The mix for an edit of a recording `rawDuration` seconds long. Without the plim's sound
// there are no pieces and no stretches.
SoundMix planShareAudio(const EditPlan& editPlan, double rawDuration, const std::vector<VoiceoverSlot>& voiceovers,
    bool includesPlimSound, double sampleRate);

} // namespace plim
