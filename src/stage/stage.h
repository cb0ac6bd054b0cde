#pragma once
// Staging: how a plim is dressed (StageSpec), where everything sits on the output canvas
// (StageGeometry, DeviceFrameGeometry, ReframeMath) and what one output instant shows
// (StageMoment, from RecordedMomentSource over the smoothed pointer); the StageRenderer
// that composes each output frame over the Compositor seam; the StagingEngine that renders a
// movie and the StagePreview that draws any of its frames on request.

#include "base/geometry.h"
#include "stage/compositor.h"
#include "stage/cursor_smoother.h"
#include "stage/cursor_spring.h"
#include "stage/device_frame.h"
#include "stage/recorded_moment_source.h"
#include "stage/reframe_math.h"
#include "stage/stage_backdrop.h"
#include "stage/render_rules.h"
#include "stage/stage_geometry.h"
#include "stage/stage_moment.h"
#include "stage/stage_preview.h"
#include "stage/stage_renderer.h"
#include "stage/stage_spec.h"
#include "stage/staging_engine.h"
#include "stage/staging_error.h"
#include "stage/video_sink.h"
