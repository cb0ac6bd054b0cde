#pragma once
// Samples the pointer 60 times a second while a plim records, notes left and right clicks
// and the user's marks, follows a recorded window's frame, and hands back the CursorTrack
// at stop.
//
// Threads: the poll runs on the recorder's own thread ("plim.cursor"); click handlers run
// on the click source's thread; mark, setPaused and stop come from any thread. One mutex
// guards all state; files are written from copies after it is released.

#include "base/clock.h"
#include "base/files.h"
#include "capture/click_source.h"
#include "capture/cursor_track.h"
#include "capture/pointer_source.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>

namespace plim {

class CursorRecorder {
public:
    // The captured region in global display points and its pixels per point.
    struct Display {
        double x = 0;
        double y = 0;
        double width = 0;
        double height = 0;
        double scale = 1.0;
        bool operator==(const Display&) const = default;
    };

    // `timer` polls on the recorder's own thread; `manual` leaves every poll to pollOnce
    // (tests drive it step by step with a ManualClock).
    enum class Polling { timer, manual };

    static constexpr double pollInterval = 1.0 / 60.0;
    static constexpr double typingWindow = 1.0 / 30.0;
    static constexpr size_t flushEvery = 300;
    static constexpr int64_t framePollEvery = 30;

    // `clicks` may be null (no clicks are recorded). The sources and the clock must
    // outlive the recorder.
    CursorRecorder(const Display& display, std::optional<uint32_t> windowID, PointerSource& pointer,
        ClickSource* clicks, const Clock& clock = UptimeClock::shared());
    ~CursorRecorder();
    CursorRecorder(const CursorRecorder&) = delete;
    CursorRecorder& operator=(const CursorRecorder&) = delete;

    // Notes the start instant, starts polling and installs the click handler. Once only.
    void start(Polling polling = Polling::timer);

    // Pausing twice counts once; resuming while not paused changes nothing.
    void setPaused(bool paused);

    // Appends a Mark at the current elapsed time unless paused or stopped.
    void mark();

    // Stops polling and clicks and returns the track. Nothing is appended afterwards;
    // later calls return the same track.
    CursorTrack stop();

    // While set, the track is written beside this movie every 300 samples.
    void setFlushMovie(std::optional<fs::path> movie);

    // One poll step: pointer sample, window frame (every 30th tick), interim flush.
    void pollOnce();

    // Milliseconds since start with paused time left out.
    int64_t elapsedMS() const;

    // Uptime seconds at start (0 before).
    double startUptime() const;

    // A copy of the track so far.
    CursorTrack snapshot() const;

    bool isPaused() const;
    bool isStopped() const;
    bool isClickMonitorInstalled() const;

private:
    void pollLoop();
    void recordWindowFrame();
    void handlePress(const ClickSource::Press& press);
    void stopPollThread();

    PointerSource& m_pointer;
    ClickSource* m_clicks;
    const Clock& m_clock;

    mutable std::mutex m_lock; // guards everything below except the poll thread itself
    CursorTrack m_track;
    std::optional<ClickSource::Token> m_clickToken;
    bool m_started = false;
    bool m_stopped = false;
    bool m_pausedFlag = false;
    double m_pausedAccum = 0;
    std::optional<double> m_pausedSince;
    double m_startUptime = 0;
    std::optional<fs::path> m_flushMovie;
    std::optional<uint32_t> m_windowID;
    int64_t m_pollCount = 0;

    std::mutex m_threadLock; // guards the poll thread's life
    std::condition_variable m_wake;
    bool m_quit = false;
    std::thread m_thread;
};

} // namespace plim
