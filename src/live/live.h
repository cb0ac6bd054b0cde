#pragma once
// Live mode: the composed picture in real time. A LiveSession goes live (screen, camera,
// pointer and clicks), a LivePipeline composes each frame with the stage renderer from a
// LiveMomentSource and hands it to every LiveSink (the monitor, a file, a camera device),
// and the DegradeLadder steps the rate and effects down while rendering falls behind.

#include "live/live_clock.h"
#include "live/live_moment_source.h"
#include "live/live_pipeline.h"
#include "live/live_rules.h"
#include "live/live_session.h"
#include "live/live_sink.h"
#include "live/live_sinks.h"
