#pragma once
// Draws any output time of a plim's staged movie on request, keeping the movie's decoder,
// the renderer and its prepared layers open between calls: the editor's preview, scrub,
// thumbnails and `plimctl stage --frame`. A frame is composed as StagingEngine::stage
// composes the movie's frame at that time.
//
// Threads: a preview is used from one thread at a time (the editor calls it from a worker
// thread, never the interface thread); frame() blocks that thread for one seek or a short
// decode forward, and one composition on the compositor's own workers. Separate previews
// share nothing and may run side by side. The plim's files are only read.

#include "base/error.h"
#include "base/image.h"
#include "stage/stage_renderer.h"
#include "media/movie_reader.h"
#include "stage/staging_engine.h"

#include <memory>

namespace plim {

class MoviePlayhead;
class StagingSound;
struct StagingSetup;

class StagePreview {
public:
    // Opens the job's movie and prepares its renderer; fails with the sentence a render of
    // the same job would give.
    // `opened`, when given, is the job's movie already opened, which saves opening it again.
    static Result<std::unique_ptr<StagePreview>> open(const StagingJob& job, std::unique_ptr<MovieReader> opened = nullptr);
    ~StagePreview();
    StagePreview(const StagePreview&) = delete;
    StagePreview& operator=(const StagePreview&) = delete;

    // The output frame at `outputTime` seconds (negative times draw the first). The Image is
    // the caller's to keep; a later frame() does not change it.
    Result<Image> frame(double outputTime);

    // A frame with where the recording lies in it.
    struct Shot {
        Image image;
        StageRenderer::Placement placement; // source pixels to this image's pixels
    };
    // The staged frame at `outputTime`, or with `raw` the recorded picture showing then, as
    // recorded (its placement the identity).
    Result<Shot> shot(double outputTime, bool raw = false);

    // Takes the job's new edit, look or canvas: the timeline, renderer and moments are made
    // again, the movie stays open. On failure the preview keeps drawing the job it had.
    Status setJob(const StagingJob& job);
    // Draws at `width` × `height` from now on (even sides of at least 2); only the renderer
    // is made again.
    Status setOutputSize(int width, int height);

    const StagingJob& job() const { return m_job; }
    // The sound of `job` (this preview's movie) as a share mixes it; null without sound.
    // The sound keeps a reference to `job`.
    Result<std::unique_ptr<StagingSound>> openSound(const StagingJob& job) const;
    // Seconds of output the job's edit makes.
    double outputDuration() const;
    // Output frames in all, and their rate.
    int64_t frameCount() const;
    double fps() const;
    // The output size frames are drawn at.
    RenderRules::PixelSize outputSize() const;

    // For play at a small size: pictures are decoded at the size the card shows them, with
    // room for the edit's deepest zoom (up to 1.75×, past which a zoom softens a little),
    // never above the recording's own. Off, they are decoded at their own size, as a
    // render decodes them.
    void setPicturesFitted(bool fitted);

private:
    StagePreview(const StagingJob& job, std::unique_ptr<StagingSetup> setup);
    void fitPictures();

    StagingJob m_job;
    std::unique_ptr<StagingSetup> m_setup;
    std::unique_ptr<MoviePlayhead> m_playhead; // over the setup's reader
    bool m_fitted = false;
};

} // namespace plim
