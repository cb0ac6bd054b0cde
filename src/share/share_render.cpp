#include "share/share_render.h"

#include "share/gif_sink.h"
#include "share/share_failure.h"

#include <variant>

namespace plim {

namespace {

class GIFVideoSink final : public VideoSink {
public:
    explicit GIFVideoSink(std::unique_ptr<GIFSink> gif) : m_gif(std::move(gif)) {}
    Status appendVideo(const Image& image, double time, StopToken) override { return m_gif->append(image, time); }
    Status appendAudio(const float*, int64_t, int64_t) override { return {}; }
    double soundSeconds() const override { return 0; }
    Status finish() override { return m_gif->finish(); }
    void cancel() override { m_gif->cancel(); }

private:
    std::unique_ptr<GIFSink> m_gif;
};

template<class... F>
struct Cases : F... {
    using F::operator()...;
};

} // namespace

namespace ShareRender {

std::string describe(const StagingError& error)
{
    return std::visit(Cases{
                          [](const StagingError::Unreadable& e) { return ShareFailure::unreadable(e.reason).sentence; },
                          [&](const StagingError::Unusable&) { return error.sentence(); },
                          [](const StagingError::WriterFailed& e) { return ShareFailure::writer(e.reason, e.noSpace).sentence; },
                          [](const StagingError::Stalled& e) { return ShareFailure::stalled(e.seconds).sentence; },
                          [](const StagingError::EmptyEdit&) { return ShareFailure::emptyEdit().sentence; },
                      },
        error.value);
}

Result<std::unique_ptr<VideoSink>> gifSink(const VideoSink::Settings& settings)
{
    GIFSink::Options options;
    options.fps = settings.fps;
    auto gif = PLIM_TRY(GIFSink::create(settings.path, {double(settings.width), double(settings.height)}, options));
    return std::unique_ptr<VideoSink>(std::make_unique<GIFVideoSink>(std::move(gif)));
}

void prepare(StagingJob& job, ShareKind kind)
{
    job.gif = kind == ShareKind::gif;
    job.fps = job.gif ? RenderRules::gifFPS : RenderRules::videoFPS;
    job.reframe = false;
    job.describe = describe;
    if (job.gif && !job.makeSink)
        job.makeSink = gifSink;
}

Outcome<StagingEngine::Result> run(const StagingJob& job, const std::function<void(const Progress&)>& progress, StopToken stop)
{
    return StagingEngine::stage(
        job,
        [&](const StagingProgress& p) {
            if (progress)
                progress({p.frames, p.expected});
        },
        stop);
}

} // namespace ShareRender

} // namespace plim
