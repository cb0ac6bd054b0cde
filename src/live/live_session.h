#pragma once
// One live run, from going live to stop: it opens the screen (and the camera when the
// bubble is on), builds the scene in the user's look and the pipeline, feeds the live
// pointer and clicks to the input bus, and every half second reads the pipeline's stats,
// walks the degrade ladder and builds the sinks' health line.
//
// Threads: goLive, refreshHealth and stop come from the owner's thread (the interface's,
// or plimctl's main thread). The screen and camera deliver on their own threads, the
// pointer is polled on "plim.live.input", clicks come on the click source's thread.

#include "base/error.h"
#include "base/geometry.h"
#include "capture/camera_source.h"
#include "capture/desktop.h"
#include "library/plim_look.h"
#include "live/live_clock.h"
#include "live/live_moment_source.h"
#include "live/live_pipeline.h"
#include "live/live_rules.h"
#include "stage/stage_spec.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace plim {

// What the recorder is doing, as far as going live cares.
enum class RecordingActivity { none, rolling, finishing };

// The sentence that refuses going live during `activity`, or nothing when it may start.
std::optional<std::string> goLiveRefusal(RecordingActivity activity);

// What another process is recording into `libraryFolder`: a recording marker there whose
// process still runs says whether its plim is rolling or being finished; a marker left by
// a process that is gone counts for nothing.
RecordingActivity recordingActivityIn(const std::filesystem::path& libraryFolder);

// Where a live run's parts come from; tests put stand-ins in.
struct LiveServices {
    std::function<Result<std::unique_ptr<Desktop>>()> openDesktop = [] { return Desktop::create(); };
    std::function<Result<std::unique_ptr<CameraSource>>()> openCamera = [] { return createV4l2CameraSource(); };
    std::function<std::unique_ptr<LiveClock>()> makeClock = [] { return std::make_unique<HostLiveClock>(); };
    // Asked once when going live.
    std::function<RecordingActivity()> recording = [] { return RecordingActivity::none; };
};

struct LiveSessionOptions {
    ScreenSubject subject = ScreenSubject::display();
    PlimLook look;     // the user's look for new plims
    StageSpec stage;   // the stage look the plim look is worn over
    Size canvas{1920, 1080};
    LiveSwitches::State switches;
    std::function<void(const std::string&)> progress; // "Opening your screen", ...
};

// What the live bar shows after a health check.
struct LiveHealthReport {
    std::string line;                 // each sink's name and sentence
    std::optional<std::string> note;  // the ladder's note when it moved
    LiveQuality quality = LiveQuality::full;
    LivePipelineStats stats;
    std::optional<std::string> ended; // the capture stream died: why; the run is over
};

// The half-second health check: the overruns since the last check walk the ladder, a
// change sets the pipeline's rate and the motion effects, and the sinks' line is built.
class LiveHealthWatch {
public:
    void reset()
    {
        m_ladder = {};
        m_lastOverran = 0;
    }
    LiveHealthReport check(LivePipeline& pipeline, LiveSwitches& switches);
    const DegradeLadder& ladder() const { return m_ladder; }

private:
    DegradeLadder m_ladder;
    int64_t m_lastOverran = 0;
};

class LiveSession {
public:
    static constexpr double healthInterval = 0.5;

    explicit LiveSession(LiveServices services = {});
    ~LiveSession();

    // Goes live into `sinks`. Fails with the refusal sentence while a recording rolls or is
    // being finished, with "Plim could not open your screen: ..." when the screen cannot be
    // opened, or when the stage cannot be composed; nothing is left running then.
    Status goLive(LiveSessionOptions options, std::vector<std::shared_ptr<LiveSink>> sinks);
    void stop();
    bool isLive() const { return m_pipeline != nullptr; }

    // Called every healthInterval seconds while live.
    LiveHealthReport refreshHealth();

    const DegradeLadder& ladder() const { return m_watch.ladder(); }
    LiveSwitches& switches() { return *m_switches; }
    LiveInputBus& inputs() { return *m_inputs; }
    LivePipeline* pipeline() { return m_pipeline.get(); }
    // Sentences about parts left out (a camera that did not open).
    const std::vector<std::string>& notices() const { return m_notices; }

private:
    Status openInputs(const Rect& frame);
    void pollPointer(std::stop_token stop, Rect frame);

    LiveServices m_services;
    std::shared_ptr<LiveSwitches> m_switches = std::make_shared<LiveSwitches>();
    std::shared_ptr<LiveInputBus> m_inputs = std::make_shared<LiveInputBus>();
    std::unique_ptr<Desktop> m_desktop;
    std::unique_ptr<ScreenSource> m_screen;
    std::unique_ptr<CameraSource> m_camera;
    DesktopInputs m_desktopInputs;
    std::optional<uint64_t> m_clickToken;
    std::jthread m_pointerThread;
    std::unique_ptr<LivePipeline> m_pipeline;
    LiveHealthWatch m_watch;
    std::vector<std::string> m_notices;
    std::mutex m_endLock;
    std::optional<std::string> m_ended;
};

} // namespace plim
