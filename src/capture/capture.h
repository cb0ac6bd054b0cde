#pragma once
// Capture: the pointer and key recorders, the tracks they write beside the screen movie,
// and the sources they read from.

#include "capture/click_source.h"
#include "capture/cursor_recorder.h"
#include "capture/cursor_track.h"
#include "capture/key_source.h"
#include "capture/keystroke_recorder.h"
#include "capture/keystroke_track.h"
#include "capture/pointer_source.h"
