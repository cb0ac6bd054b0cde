#pragma once
// Capture: the pointer and key recorders, the tracks they write beside the screen movie,
// where the tracks' stamps land in the movie, the desktop and the seams the recorders read
// from. Every header at capture/'s top level is public; this one gathers them for a source
// file that uses many (a header includes what it uses instead).

#include "capture/camera_source.h"
#include "capture/capture_session.h"
#include "capture/click_source.h"
#include "capture/cursor_recorder.h"
#include "capture/cursor_track.h"
#include "capture/desktop.h"
#include "capture/key_activity_source.h"
#include "capture/key_source.h"
#include "capture/keystroke_recorder.h"
#include "capture/keystroke_track.h"
#include "capture/pointer_source.h"
#include "capture/recording_marker.h"
#include "capture/track_placement.h"
#include "capture/window_frame_source.h"
