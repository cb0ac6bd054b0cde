#include "stage/stage_preview.h"

#include "stage/movie_playhead.h"
#include "stage/staging_setup.h"
#include "stage/staging_sound.h"

#include <algorithm>
#include <cmath>

namespace plim {

Result<std::unique_ptr<StagePreview>> StagePreview::open(const StagingJob& job, std::unique_ptr<MovieReader> opened)
{
    auto setup = std::make_unique<StagingSetup>(PLIM_TRY(prepareStaging(job, std::move(opened))));
    return std::unique_ptr<StagePreview>(new StagePreview(job, std::move(setup)));
}

StagePreview::StagePreview(const StagingJob& job, std::unique_ptr<StagingSetup> setup)
    : m_job(job), m_setup(std::move(setup)), m_playhead(std::make_unique<MoviePlayhead>(std::move(m_setup->reader)))
{
}

void StagePreview::setPicturesFitted(bool fitted)
{
    m_fitted = fitted;
    fitPictures();
}

void StagePreview::fitPictures()
{
    if (!m_fitted) {
        m_playhead->setPictureSize(0, 0, m_job.movie.filename().string());
        return;
    }
    const StagingSetup& s = *m_setup;
    const Rect card = s.renderer->geometry().screenRect;
    double deepest = 1;
    for (const ZoomBlock& zoom : m_job.plan.zooms)
        if (std::isfinite(zoom.scale))
            deepest = std::max(deepest, zoom.scale);
    // Short of 1.75×, a picture drawn at under half its size costs a halving pass a frame.
    const double scale = std::min(card.width / s.info.width, card.height / s.info.height) * std::min(deepest, 1.75);
    if (!(scale > 0) || scale >= 0.98) {
        m_playhead->setPictureSize(0, 0, m_job.movie.filename().string());
        return;
    }
    auto even = [](double side) { return std::max(2, static_cast<int>(side / 2) * 2); };
    m_playhead->setPictureSize(even(s.info.width * scale), even(s.info.height * scale), m_job.movie.filename().string());
}

StagePreview::~StagePreview() = default;

Result<Image> StagePreview::frame(double outputTime)
{
    return PLIM_TRY(shot(outputTime)).image;
}

Result<StagePreview::Shot> StagePreview::shot(double outputTime, bool raw)
{
    StagingSetup& s = *m_setup;
    const double raw_t = s.timeline.rawTime(std::max(0.0, outputTime)).value_or(0.0);
    const VideoFrame* picture = PLIM_TRY(m_playhead->at(raw_t));
    if (!picture)
        return std::unexpected(stagingFailure(m_job, StagingError::unreadable("no frame of it could be drawn")));
    // Placements are of the recording's pixels, whatever size the picture was decoded at.
    const Size recorded{double(s.info.width), double(s.info.height)};
    if (raw) {
        const Image& image = picture->image;
        return Shot{image, {Affine::scale(image.width / recorded.width, image.height / recorded.height),
                               Rect{0, 0, double(image.width), double(image.height)}}};
    }
    const int64_t slot = RenderRules::slotOf(outputTime, s.fps);
    const StageMoment moment = s.moments->moment(raw_t, s.dtAtSlot(slot));
    std::optional<Image> cameraPicture = s.camera ? s.camera->at(raw_t) : std::nullopt;
    Image image = s.renderer->render(picture->image, moment, std::nullopt, cameraPicture);
    return Shot{std::move(image), s.renderer->placement(recorded, moment)};
}

Status StagePreview::setJob(const StagingJob& job)
{
    StagingJob wanted = job;
    if (!wanted.canvas)
        wanted.canvas = m_job.canvas; // the size the preview was asked to draw at
    StagingSetup next;
    next.info = m_setup->info;
    next.pictureEnd = m_setup->pictureEnd;
    next.camera = std::move(m_setup->camera);
    Status made = prepareEdit(next, wanted);
    if (!made) {
        m_setup->camera = std::move(next.camera);
        return made;
    }
    *m_setup = std::move(next);
    m_job = std::move(wanted);
    fitPictures();
    return {};
}

Status StagePreview::setOutputSize(int width, int height)
{
    StagingJob job = m_job;
    job.canvas = RenderRules::PixelSize{std::max(2, width / 2 * 2), std::max(2, height / 2 * 2)};
    if (job.canvas == m_job.canvas && m_setup->renderer)
        return {};
    StagingSetup& s = *m_setup;
    auto kept = std::move(s.renderer);
    const auto keptCanvas = s.canvas;
    Status made = prepareRenderer(s, job);
    if (!made) {
        s.renderer = std::move(kept);
        s.canvas = keptCanvas;
        return made;
    }
    m_job = std::move(job);
    fitPictures();
    return {};
}

Result<std::unique_ptr<StagingSound>> StagePreview::openSound(const StagingJob& job) const
{
    return StagingSound::open(job, *m_setup);
}

double StagePreview::outputDuration() const { return m_setup->timeline.outputDuration(); }
int64_t StagePreview::frameCount() const { return m_setup->frameCount(0); }
double StagePreview::fps() const { return m_setup->fps; }
RenderRules::PixelSize StagePreview::outputSize() const { return m_setup->canvas; }

} // namespace plim
