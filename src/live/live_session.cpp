#include "live/live_session.h"

#include "base/log.h"
#include "capture/click_source.h"
#include "capture/pointer_source.h"
#include "capture/recording_marker.h"

#include <chrono>
#include <cmath>
#include <pthread.h>

namespace plim {

namespace {

std::optional<std::pair<double, double>> unitIn(const Rect& frame, double x, double y)
{
    if (!(frame.width > 0) || !(frame.height > 0))
        return std::nullopt;
    const double ux = (x - frame.x) / frame.width;
    const double uy = (y - frame.y) / frame.height;
    if (!(ux >= 0 && ux <= 1 && uy >= 0 && uy <= 1))
        return std::nullopt;
    return std::pair{ux, uy};
}

} // namespace

std::optional<std::string> goLiveRefusal(RecordingActivity activity)
{
    switch (activity) {
    case RecordingActivity::none: return std::nullopt;
    case RecordingActivity::rolling:
        return "A plim is rolling. Stop it first, then go live. The stream and the recording share one capture.";
    case RecordingActivity::finishing:
        return "Your plim is still being finished. Go live again in a moment, when it is in your library.";
    }
    return std::nullopt;
}

RecordingActivity recordingActivityIn(const std::filesystem::path& libraryFolder)
{
    RecordingActivity found = RecordingActivity::none;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(libraryFolder, ec), end; !ec && it != end; it.increment(ec)) {
        if (!RecordingMarker::movieOf(it->path()))
            continue;
        auto marker = RecordingMarker::read(it->path());
        if (!marker || !marker->processIsAlive())
            continue;
        if (marker->phase == RecordingMarker::Phase::rolling)
            return RecordingActivity::rolling;
        found = RecordingActivity::finishing;
    }
    return found;
}

LiveSession::LiveSession(LiveServices services) : m_services(std::move(services)) {}

LiveSession::~LiveSession() { stop(); }

Status LiveSession::goLive(LiveSessionOptions options, std::vector<std::shared_ptr<LiveSink>> sinks)
{
    if (auto refusal = goLiveRefusal(m_services.recording ? m_services.recording() : RecordingActivity::none))
        return fail(*refusal, Error::Kind::refused);
    stop();
    m_notices.clear();
    m_watch.reset();
    {
        std::lock_guard lock(m_endLock);
        m_ended.reset();
    }
    m_switches->set(options.switches);
    auto say = [&](const std::string& text) {
        if (options.progress)
            options.progress(text);
    };

    say("Opening your screen");
    auto desktop = m_services.openDesktop();
    if (!desktop)
        return fail("Plim could not open your screen: " + desktop.error().sentence);
    auto screen = (*desktop)->screen(options.subject);
    if (!screen)
        return fail("Plim could not open your screen: " + screen.error().sentence);
    m_desktop = std::move(*desktop);
    m_screen = std::move(*screen);
    const Rect frame = m_screen->frame();
    const double scale = m_screen->scale() > 0 ? m_screen->scale() : 1;

    if (options.look.cameraBubble && options.switches.bubble) {
        say("Opening your camera");
        if (auto camera = m_services.openCamera())
            m_camera = std::move(*camera);
        else
            m_notices.push_back("The stream goes on without the camera bubble. " + camera.error().sentence);
    }

    const StageSpec spec = wearing(options.stage, options.look);
    StageRenderer::Options renderOptions;
    renderOptions.content = {std::round(frame.width * scale), std::round(frame.height * scale)};
    // A camera picture is landscape whatever shape the plims are shared in.
    renderOptions.shape = PlimLook::Shape::landscape;
    if (m_camera)
        renderOptions.camera = CameraBubble{CameraShape::circle, options.look.bubbleCorner};
    renderOptions.zoomBlur = options.look.zoomBlur;
    renderOptions.hasKeycaps = false;
    if (spec.backdrop.name() == StageSpec::Backdrop::Named::wallpaper)
        renderOptions.wallpaper = desktopWallpaper();
    auto renderer = StageRenderer::create(spec, options.canvas, renderOptions);
    if (!renderer) {
        stop();
        return std::unexpected(renderer.error());
    }
    SceneBundle scene;
    scene.renderer = std::move(*renderer);
    scene.momentSource = std::make_shared<LiveMomentSource>(
        LiveMomentSource::optionsFor(spec, options.look.cursorGlide), m_switches, m_inputs);
    scene.switches = m_switches;
    m_pipeline = std::make_unique<LivePipeline>(m_services.makeClock(), std::move(scene), std::move(sinks),
        liveRate(LiveQuality::full));

    LivePipeline* pipeline = m_pipeline.get();
    auto started = m_screen->start(
        liveRate(LiveQuality::full), [pipeline](CapturedFrame&& f) { pipeline->postScreen(std::move(f.image)); },
        [this](const Error& e) {
            std::lock_guard lock(m_endLock);
            m_ended = "Plim could not go on reading your screen, so the stream ended: " + e.sentence;
        });
    if (!started) {
        std::string reason = started.error().sentence;
        stop();
        return fail("Plim could not open your screen: " + reason);
    }
    if (m_camera) {
        if (auto cam = m_camera->start([pipeline](CapturedFrame&& f) { pipeline->postCamera(std::move(f.image)); }); !cam) {
            m_notices.push_back("The stream goes on without the camera bubble. " + cam.error().sentence);
            m_camera.reset();
        }
    }
    if (auto inputs = openInputs(frame); !inputs)
        m_notices.push_back(inputs.error().sentence);
    for (const std::string& n : m_notices)
        logLine(LogArea::live, n);
    if (auto running = m_pipeline->start(); !running) {
        stop();
        return running;
    }
    return {};
}

Status LiveSession::openInputs(const Rect& frame)
{
    auto inputs = m_desktop->inputs();
    if (!inputs)
        return fail("The stream shows no pointer or clicks. " + inputs.error().sentence);
    m_desktopInputs = std::move(*inputs);
    if (m_desktopInputs.pointer)
        m_pointerThread = std::jthread([this, frame](std::stop_token stop) { pollPointer(stop, frame); });
    if (m_desktopInputs.clicks) {
        auto bus = m_inputs;
        auto token = m_desktopInputs.clicks->install([bus, frame](const ClickSource::Press& press) {
            if (auto unit = unitIn(frame, press.x, press.y))
                bus->postClick(unit->first, unit->second);
        });
        if (!token)
            return fail("The stream shows no click effects. " + token.error().sentence);
        m_clickToken = *token;
    }
    return {};
}

void LiveSession::pollPointer(std::stop_token stop, Rect frame)
{
    pthread_setname_np(pthread_self(), "plim.live.input");
    auto next = std::chrono::steady_clock::now();
    while (!stop.stop_requested()) {
        std::optional<Point> p = m_desktopInputs.pointer->position();
        m_inputs->postPointer(p ? unitIn(frame, p->x, p->y) : std::nullopt);
        next += std::chrono::microseconds(16667);
        std::this_thread::sleep_until(next);
    }
}

void LiveSession::stop()
{
    if (m_pipeline)
        m_pipeline->stop();
    if (m_screen)
        m_screen->stop();
    if (m_camera)
        m_camera->stop();
    if (m_pointerThread.joinable()) {
        m_pointerThread.request_stop();
        m_pointerThread.join();
    }
    if (m_clickToken && m_desktopInputs.clicks)
        m_desktopInputs.clicks->remove(*m_clickToken);
    m_clickToken.reset();
    m_desktopInputs = {};
    m_pipeline.reset();
    m_camera.reset();
    m_screen.reset();
    m_desktop.reset();
}

LiveHealthReport LiveHealthWatch::check(LivePipeline& pipeline, LiveSwitches& switches)
{
    LiveHealthReport report;
    report.stats = pipeline.stats();
    const int64_t overran = report.stats.backpressure.renderOverran;
    const int64_t since = std::max<int64_t>(overran - m_lastOverran, 0);
    m_lastOverran = overran;
    DegradeLadder::Step step
        = m_ladder.advance(static_cast<int>(std::min<int64_t>(since, 1 << 30)), LiveSession::healthInterval);
    if (step.change) {
        pipeline.setRate(liveRate(*step.change));
        switches.setMotionEffects(*step.change != LiveQuality::minimalEffects);
        report.note = step.note;
        logLine(LogArea::live, step.note);
    }
    report.quality = m_ladder.quality;
    report.line = healthLine(pipeline.sinkHealths());
    return report;
}

LiveHealthReport LiveSession::refreshHealth()
{
    if (!m_pipeline) {
        LiveHealthReport idle;
        idle.quality = m_watch.ladder().quality;
        return idle;
    }
    LiveHealthReport report = m_watch.check(*m_pipeline, *m_switches);
    {
        std::lock_guard lock(m_endLock);
        report.ended = m_ended;
    }
    if (report.ended)
        stop();
    return report;
}

} // namespace plim
