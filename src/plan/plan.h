#pragma once
// Edit planning: the persisted plan of a plim, the mapping between source and output
// time, zoom curves, the automatic edit and the sound of a share under its edit.

#include "plan/auto_edit.h"
#include "plan/edit_plan.h"
#include "plan/plim_clip.h"
#include "plan/remap_step.h"
#include "plan/share_audio_plan.h"
#include "plan/time_remap.h"
#include "plan/zoom_block.h"
#include "plan/zoom_curve.h"
#include "plan/zoom_state.h"
