#pragma once
// Composes live frames and hands them to the sinks: on every clock tick the latest screen
// picture and the live moment go through the stage renderer, and the frame goes to each
// sink in turn. A sink that fails or refuses never holds up the others.
//
// Threads: the clock's thread ("plim.live.render") renders and calls the sinks. The screen
// and camera pictures are posted from their sources' threads (postScreen, postCamera),
// guarded by one lock. start, stop and setRate come from the owner's thread; stats() and
// sinkHealths() from any thread (the stats have their own lock).
//
// Canvases: the renderer hands out its own pictures and reuses one once every copy is
// gone. At most poolSize frames may be held by the sinks at once; a tick that finds them
// all held renders nothing and counts poolExhausted, naming the sink that holds most.

#include "base/error.h"
#include "base/image.h"
#include "live/live_clock.h"
#include "live/live_rules.h"
#include "live/live_sink.h"
#include "stage/stage_moment.h"
#include "stage/stage_renderer.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace plim {

// What a live frame is made of.
struct SceneBundle {
    std::shared_ptr<StageRenderer> renderer;
    std::shared_ptr<StageMomentSource> momentSource;
    std::shared_ptr<LiveSwitches> switches; // the bubble switch decides whether the camera is drawn
    bool usesScreen = true;                 // a tick without a new screen picture counts as starved
};

class LivePipeline {
public:
    using Stats = LivePipelineStats;
    static constexpr size_t poolSize = 4;

    LivePipeline(std::unique_ptr<LiveClock> clock, SceneBundle scene, std::vector<std::shared_ptr<LiveSink>> sinks,
        int fps = 60);
    ~LivePipeline();

    // The newest screen picture; an older one still waiting is replaced. Thread-safe.
    void postScreen(Image picture);
    // The newest camera picture. Thread-safe.
    void postCamera(Image picture);

    // Starts ticking at the current rate; fails when the scene has no renderer or the clock
    // does not start.
    Status start();
    // Stops the clock, then closes every sink. Safe to call twice.
    void stop();
    // At least 1 frame a second; a running pipeline restarts its clock at the new rate.
    void setRate(int fps);
    int currentFPS() const;
    bool isRunning() const { return m_running; }

    Stats stats() const;
    std::vector<std::pair<std::string, LiveSinkHealth>> sinkHealths() const;
    LiveClock& clock() { return *m_clock; }

private:
    struct Held {
        std::vector<std::weak_ptr<uint8_t[]>> bySink; // one per sink that took the frame
    };

    void tick(const LiveTick& tick);
    bool poolHasRoom();
    void deliver(const Image& image, double time, double duration);

    std::unique_ptr<LiveClock> m_clock;
    SceneBundle m_scene;
    std::vector<std::shared_ptr<LiveSink>> m_sinks;
    std::atomic<int> m_fps{60};
    bool m_running = false;
    std::optional<double> m_sessionStart;
    std::optional<double> m_lastTick; // read by the owner only while the clock is stopped
    int64_t m_sequence = 0;
    std::vector<Held> m_held;
    std::vector<int> m_lastDropped; // each sink's dropped count at the previous frame

    std::mutex m_pictureLock;
    Image m_screen;
    int64_t m_screenSerial = 0;
    int64_t m_usedSerial = 0;
    Image m_camera;

    mutable std::mutex m_statsLock;
    Stats m_stats;
};

} // namespace plim
