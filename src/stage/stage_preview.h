#pragma once
// Draws any output time of a plim's staged movie on request, keeping the movie's decoder,
// the renderer and its prepared layers open between calls: the editor's scrub, thumbnails
// and `plimctl stage --frame`. A frame is composed as StagingEngine::stage composes the
// movie's frame at that time.
//
// Threads: a preview is used from one thread at a time (the editor calls it from a worker
// thread, never the interface thread); frame() blocks that thread for one seek or a short
// decode forward, and one composition on the compositor's own workers. Separate previews
// share nothing and may run side by side. The plim's files are only read.

#include "base/error.h"
#include "base/image.h"
#include "stage/staging_engine.h"

#include <memory>

namespace plim {

class MoviePlayhead;
struct StagingSetup;

class StagePreview {
public:
    // Opens the job's movie and prepares its renderer; fails with the sentence a render of
    // the same job would give.
    static Result<std::unique_ptr<StagePreview>> open(const StagingJob& job);
    ~StagePreview();
    StagePreview(const StagePreview&) = delete;
    StagePreview& operator=(const StagePreview&) = delete;

    // The output frame at `outputTime` seconds (negative times draw the first). The Image is
    // the caller's to keep; a later frame() does not change it.
    Result<Image> frame(double outputTime);

    // Seconds of output the job's edit makes.
    double outputDuration() const;

private:
    StagePreview(const StagingJob& job, std::unique_ptr<StagingSetup> setup);

    StagingJob m_job;
    std::unique_ptr<StagingSetup> m_setup;
    std::unique_ptr<MoviePlayhead> m_playhead; // over the setup's reader
};

} // namespace plim
