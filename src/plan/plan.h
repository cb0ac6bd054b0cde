#pragma once
// Edit planning: the persisted plan of a plim and the mapping between source and output time.

#include "plan/edit_plan.h"
#include "plan/plim_clip.h"
#include "plan/remap_step.h"
#include "plan/zoom_block.h"

#if __has_include("plan/time_remap.h")
#include "plan/time_remap.h"
#endif
#if __has_include("plan/zoom_curve.h")
#include "plan/zoom_curve.h"
#endif
#if __has_include("plan/zoom_state.h")
#include "plan/zoom_state.h"
#endif
#if __has_include("plan/auto_edit.h")
#include "plan/auto_edit.h"
#endif
