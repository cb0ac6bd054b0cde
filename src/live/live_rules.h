#pragma once
// The small values and rules of a live run: the quality rungs and the ladder that walks
// them, the pointer's idle fade, the input bus and switches shared between the event
// threads and the render thread, the backpressure counters, and the health line.

#include "live/live_sink.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace plim {

// Each rung is one step further down.
enum class LiveQuality { full, halfRate, minimalEffects };

// Frames a second the stream runs at on a rung: 60 at full, 30 below.
int liveRate(LiveQuality quality);

// Protects the stream when rendering falls behind: bad half-seconds step it down at once,
// and it climbs back one rung per 30 clean seconds.
struct DegradeLadder {
    // What the lowest rung switches off, as the notes word it.
    struct Extras {
        std::string words;
        std::string verb;
        bool operator==(const Extras&) const = default;
    };
    struct Step {
        std::optional<LiveQuality> change; // the new rung, when it moved
        std::string note;                  // what the live bar shows; empty without a change
        bool operator==(const Step&) const = default;
    };

    static constexpr int stepDownOverruns = 10;
    static constexpr double cleanToStepUp = 30;

    LiveQuality quality = LiveQuality::full;
    double cleanFor = 0; // seconds without an overrun while below full
    std::optional<Extras> extras = Extras{"motion blur and click effects", "are"};
    bool operator==(const DegradeLadder&) const = default;

    // One sample: the render overruns since the previous one, `dt` seconds ago.
    Step advance(int overruns, double dt);
};

// How visible a resting pointer is: fully shown while it moves and for 1.6 s after, then
// fading out over 0.7 s.
struct IdleFade {
    static constexpr double moveTolerance = 0.005; // unit distance that still counts as resting
    static constexpr double fadeStart = 1.6;
    static constexpr double fadeLength = 0.7;

    double stillFor = 0;
    std::optional<double> lastX;
    std::optional<double> lastY;

    // The pointer's opacity (0...1) at unit position (x, y), `dt` seconds after the last call.
    double advance(double x, double y, double dt);
};

// Live pointer and clicks in unit coordinates of the captured screen, posted by the event
// threads and taken by the render thread. Thread-safe.
class LiveInputBus {
public:
    static constexpr size_t clickCap = 32;
    struct Click {
        double x = 0;
        double y = 0;
        bool operator==(const Click&) const = default;
    };

    // A click with a non-finite coordinate is ignored; one that finds clickCap waiting is dropped.
    void postClick(double unitX, double unitY);
    // The pointer's place, or nothing when it is off the screen or unknown; non-finite is unknown.
    void postPointer(std::optional<std::pair<double, double>> unit);
    void countManualToggle();

    std::optional<std::pair<double, double>> pointer() const;
    // The clicks waiting, oldest first; the bus is left empty.
    std::vector<Click> takeClicks();
    size_t waitingClicks() const;
    int manualToggles() const;

private:
    mutable std::mutex m_lock;
    std::optional<std::pair<double, double>> m_pointer;
    std::vector<Click> m_clicks;
    int m_manualToggles = 0;
};

// What the user switched on for the stream. Thread-safe.
class LiveSwitches {
public:
    struct State {
        bool bubble = true;        // camera bubble shown
        bool zoomOnClicks = true;
        bool motionEffects = true; // motion blur and click effects
        bool operator==(const State&) const = default;
    };

    LiveSwitches() = default;
    explicit LiveSwitches(State state) : m_state(state) {}
    State state() const;
    void set(State state);
    void setMotionEffects(bool on);

private:
    mutable std::mutex m_lock;
    State m_state;
};

// Cumulative for a run.
struct LiveBackpressure {
    int64_t sourceStarved = 0; // no new screen frame when a tick came
    int64_t renderOverran = 0; // a frame was still rendering when the next tick came
    int64_t poolExhausted = 0; // every canvas in the pool was still held by the sinks
    int64_t sinkRefused = 0;   // a sink refused a frame
    bool operator==(const LiveBackpressure&) const = default;
};

struct LivePipelineStats {
    int64_t framesDelivered = 0;
    LiveBackpressure backpressure;
    std::optional<std::string> poolHog; // the sink holding the pool's canvases when it ran out
    bool operator==(const LivePipelineStats&) const = default;
};

// "Not running.", "Live.", "3 dropped." or the sink's own sentence.
std::string healthSentence(const LiveSinkHealth& health);
// Each sink's name and sentence: "Plim Camera: Live. File: 2 dropped."
std::string healthLine(const std::vector<std::pair<std::string, LiveSinkHealth>>& sinks);

} // namespace plim
