#include "live/live_pipeline.h"

#include "base/log.h"

#include <algorithm>
#include <exception>

namespace plim {

namespace {

int droppedOf(const LiveSinkHealth& health)
{
    if (auto* running = std::get_if<LiveSinkHealth::Running>(&health.state))
        return running->dropped;
    return 0;
}

bool hasFailed(const LiveSinkHealth& health) { return std::holds_alternative<LiveSinkHealth::Failed>(health.state); }

} // namespace

LivePipeline::LivePipeline(std::unique_ptr<LiveClock> clock, SceneBundle scene, std::vector<std::shared_ptr<LiveSink>> sinks, int fps)
    : m_clock(std::move(clock))
    , m_scene(std::move(scene))
    , m_sinks(std::move(sinks))
    , m_fps(std::max(fps, 1))
    , m_lastDropped(m_sinks.size(), 0)
{
    std::erase(m_sinks, nullptr);
    m_lastDropped.resize(m_sinks.size(), 0);
}

LivePipeline::~LivePipeline() { stop(); }

void LivePipeline::postScreen(Image picture)
{
    std::lock_guard lock(m_pictureLock);
    m_screen = std::move(picture);
    ++m_screenSerial;
}

void LivePipeline::postCamera(Image picture)
{
    std::lock_guard lock(m_pictureLock);
    m_camera = std::move(picture);
}

Status LivePipeline::start()
{
    if (m_running)
        return {};
    if (!m_scene.renderer || !m_scene.momentSource)
        return fail("The live picture cannot be composed: the stage is not set up.");
    m_sessionStart.reset();
    m_lastTick.reset();
    PLIM_TRY(m_clock->start(1.0 / m_fps.load(), [this](const LiveTick& t) { tick(t); }));
    m_running = true;
    return {};
}

void LivePipeline::stop()
{
    if (!m_running)
        return;
    m_clock->stop();
    m_running = false;
    for (auto& sink : m_sinks)
        sink->close();
}

void LivePipeline::setRate(int fps)
{
    fps = std::max(fps, 1);
    if (fps == m_fps.load())
        return;
    m_fps.store(fps);
    if (!m_running)
        return;
    m_clock->stop();
    // The first tick at the new rate comes a whole new interval after the last frame.
    std::optional<double> firstDue;
    if (m_lastTick)
        firstDue = *m_lastTick + 1.0 / fps;
    if (auto started = m_clock->start(1.0 / fps, [this](const LiveTick& t) { tick(t); }, firstDue); !started) {
        logLine(LogArea::live, started.error().sentence);
        m_running = false;
    }
}

int LivePipeline::currentFPS() const { return m_fps.load(); }

LivePipeline::Stats LivePipeline::stats() const
{
    std::lock_guard lock(m_statsLock);
    return m_stats;
}

std::vector<std::pair<std::string, LiveSinkHealth>> LivePipeline::sinkHealths() const
{
    std::vector<std::pair<std::string, LiveSinkHealth>> out;
    for (const auto& sink : m_sinks)
        out.emplace_back(sink->name(), sink->health());
    return out;
}

bool LivePipeline::poolHasRoom()
{
    std::erase_if(m_held, [](const Held& h) {
        return std::ranges::all_of(h.bySink, [](const std::weak_ptr<uint8_t[]>& w) { return w.expired(); });
    });
    if (m_held.size() < poolSize)
        return true;
    std::vector<int> holding(m_sinks.size(), 0);
    for (const Held& h : m_held)
        for (size_t i = 0; i < h.bySink.size() && i < holding.size(); ++i)
            holding[i] += h.bySink[i].expired() ? 0 : 1;
    const auto hog = std::ranges::max_element(holding) - holding.begin();
    std::lock_guard lock(m_statsLock);
    ++m_stats.backpressure.poolExhausted;
    if (!m_sinks.empty())
        m_stats.poolHog = m_sinks[static_cast<size_t>(hog)]->name();
    return false;
}

void LivePipeline::tick(const LiveTick& tick)
{
    if (!m_sessionStart)
        m_sessionStart = tick.time;
    m_lastTick = tick.time;
    Image screen;
    Image camera;
    bool fresh = false;
    {
        std::lock_guard lock(m_pictureLock);
        screen = m_screen;
        camera = m_camera;
        fresh = m_screenSerial != m_usedSerial;
        m_usedSerial = m_screenSerial;
    }
    {
        std::lock_guard lock(m_statsLock);
        m_stats.backpressure.renderOverran += tick.overran;
        if (m_scene.usesScreen && !fresh)
            ++m_stats.backpressure.sourceStarved;
    }
    if (!poolHasRoom())
        return;
    const double duration = 1.0 / m_fps.load();
    const double time = tick.time - *m_sessionStart;
    StageMoment moment = m_scene.momentSource->moment(time, duration);
    const bool bubble = !m_scene.switches || m_scene.switches->state().bubble;
    std::optional<Image> cameraPicture;
    if (bubble && !camera.isEmpty())
        cameraPicture = std::move(camera);
    Image image = m_scene.renderer->render(screen, moment, std::nullopt, cameraPicture);
    deliver(image, time, duration);
}

void LivePipeline::deliver(const Image& image, double time, double duration)
{
    Held held;
    int64_t refused = 0;
    const int64_t sequence = m_sequence++;
    for (size_t i = 0; i < m_sinks.size(); ++i) {
        LiveSink& sink = *m_sinks[i];
        if (hasFailed(sink.health())) {
            held.bySink.emplace_back();
            continue;
        }
        // Each sink gets its own handle on the pixels, so the pool can tell who still holds them.
        LiveFrame frame{image, time, duration, sequence};
        frame.image.pixels = std::shared_ptr<uint8_t[]>(image.pixels.get(), [keep = image.pixels](uint8_t*) {});
        held.bySink.emplace_back(frame.image.pixels);
        try {
            sink.consume(frame);
        } catch (const std::exception& e) {
            logLine(LogArea::live, sink.name() + " could not take a frame: " + e.what());
            ++refused;
        }
        const int dropped = droppedOf(sink.health());
        refused += std::max(dropped - m_lastDropped[i], 0);
        m_lastDropped[i] = dropped;
    }
    m_held.push_back(std::move(held));
    std::lock_guard lock(m_statsLock);
    ++m_stats.framesDelivered;
    m_stats.backpressure.sinkRefused += refused;
}

} // namespace plim
