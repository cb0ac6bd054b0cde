#include "stage/stage_preview.h"

#include "stage/movie_playhead.h"
#include "stage/staging_setup.h"
#include "stage/staging_sound.h"

#include <algorithm>

namespace plim {

Result<std::unique_ptr<StagePreview>> StagePreview::open(const StagingJob& job)
{
    auto setup = std::make_unique<StagingSetup>(PLIM_TRY(prepareStaging(job)));
    return std::unique_ptr<StagePreview>(new StagePreview(job, std::move(setup)));
}

StagePreview::StagePreview(const StagingJob& job, std::unique_ptr<StagingSetup> setup)
    : m_job(job), m_setup(std::move(setup)), m_playhead(std::make_unique<MoviePlayhead>(std::move(m_setup->reader)))
{
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
    const Size source{double(picture->image.width), double(picture->image.height)};
    if (raw)
        return Shot{picture->image, {Affine::identity(), Rect{0, 0, source.width, source.height}}};
    const int64_t slot = RenderRules::slotOf(outputTime, s.fps);
    const StageMoment moment = s.moments->moment(raw_t, s.dtAtSlot(slot));
    std::optional<Image> cameraPicture = s.camera ? s.camera->at(raw_t) : std::nullopt;
    Image image = s.renderer->render(picture->image, moment, std::nullopt, cameraPicture);
    return Shot{std::move(image), s.renderer->placement(source, moment)};
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
