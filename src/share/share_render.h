#pragma once
// One share's render: the staging engine's decode -> compose -> encode pass, run with the
// share's frame rate (60, or 12 for a GIF), canvas, sink (the H.264 movie, or GIFSink)
// and wording. The pass itself (pacing, expected frames, stop between frames, the stall
// limit, the partial file removed on failure and stop, renamed when done) is the engine's.
//
// Threads: run() blocks its caller; `progress` is called from the engine's encode thread.

#include "share/share_options.h"
#include "stage/staging_engine.h"
#include "stage/staging_error.h"
#include "stage/video_sink.h"

namespace plim {

namespace ShareRender {

struct Progress {
    int64_t frames = 0;
    int64_t expected = 0;
};

// The job's output rate and sink for `kind` (video or gif), and the share's sentences.
void prepare(StagingJob& job, ShareKind kind);

Outcome<StagingEngine::Result> run(const StagingJob& job, const std::function<void(const Progress&)>& progress,
    StopToken stop);

// StagingError in the share's words ("Share again", "Sharing made no progress ...").
std::string describe(const StagingError& error);

// A GIF written by GIFSink behind the engine's sink seam; sound is ignored.
Result<std::unique_ptr<VideoSink>> gifSink(const VideoSink::Settings& settings);

} // namespace ShareRender

} // namespace plim
