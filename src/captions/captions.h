#pragma once
// Captions: the caption track beside a plim's movie (CaptionTrack), the line builder every
// engine's words go through, the speech-engine seam with PocketSphinx as the built-in
// recogniser, the plim's sound at 16 kHz (CaptionAudio), one engine run under a deadline
// (TranscriptionPass) and the router that picks Whisper or the built-in recogniser and
// falls back between them (CaptionEngineRouter).

#include "captions/caption_audio.h"
#include "captions/caption_engine_router.h"
#include "captions/caption_error.h"
#include "captions/caption_lines.h"
#include "captions/caption_track.h"
#include "captions/speech_engine.h"
#include "captions/transcription_pass.h"
#include "captions/whisper_segments.h"
