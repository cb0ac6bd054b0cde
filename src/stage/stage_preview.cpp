#include "stage/stage_preview.h"

#include "stage/movie_playhead.h"
#include "stage/staging_setup.h"

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
    StagingSetup& s = *m_setup;
    const double raw = s.timeline.rawTime(std::max(0.0, outputTime)).value_or(0.0);
    const VideoFrame* picture = PLIM_TRY(m_playhead->at(raw));
    if (!picture)
        return std::unexpected(stagingFailure(m_job, StagingError::unreadable("no frame of it could be drawn")));
    const int64_t slot = RenderRules::slotOf(outputTime, s.fps);
    return s.compose(picture->image, raw, s.dtAtSlot(slot));
}

double StagePreview::outputDuration() const { return m_setup->timeline.outputDuration(); }

} // namespace plim
