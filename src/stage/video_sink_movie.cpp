#include "media/media.h"
#include "stage/video_sink.h"

namespace plim {

namespace {

class MovieSink final : public VideoSink {
public:
    explicit MovieSink(std::unique_ptr<MovieWriter> writer) : m_writer(std::move(writer)) {}

    Status appendVideo(const Image& image, double time, StopToken) override { return m_writer->appendVideo(image, time); }
    Status appendAudio(const float* interleaved, int64_t frames, int64_t startFrame) override
    {
        return m_writer->appendAudio(0, interleaved, frames, startFrame);
    }
    double soundSeconds() const override { return m_writer->soundSeconds(0); }
    Status finish() override { return m_writer->finish(); }
    void cancel() override { m_writer->cancel(); }

private:
    std::unique_ptr<MovieWriter> m_writer;
};

} // namespace

Result<std::unique_ptr<VideoSink>> VideoSink::movie(const Settings& settings)
{
    MovieWriter::Settings writer;
    writer.path = settings.path;
    writer.container = MovieWriter::Container::mp4;
    writer.width = settings.width;
    writer.height = settings.height;
    writer.frameRate = settings.fps;
    writer.bitsPerSecond = exportBitsPerSecond(settings.width, settings.height);
    writer.constantRate = true;
    writer.preset = exportPreset;
    writer.threads = settings.threads;
    writer.queueDepth = 2; // the engine queues composed frames itself
    writer.lookaheadThread = false; // the engine's own threads keep the cores busy
    writer.fewerFramesInFlight = int64_t(settings.width) * settings.height > 2 * 1920 * 1080; // a 4K share's memory
    if (settings.sound)
        writer.sound.push_back(MovieWriter::exportTrack());
    auto made = PLIM_TRY(MovieWriter::create(std::move(writer)));
    return std::unique_ptr<VideoSink>(std::make_unique<MovieSink>(std::move(made)));
}

} // namespace plim
