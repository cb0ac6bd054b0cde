#pragma once
// Samples the pointer 60 times a second while a plim records, notes left and right clicks
// and the user's marks, follows a recorded window's frame, and hands back the CursorTrack
// at stop.
//
// Threads: the poll runs on the recorder's own thread ("plim.cursor") and never touches
// the disk; the interim journal is written on another ("plim.cursor.jrn"); click
// handlers run on the click source's thread; mark, setPaused and stop come from any
// thread. One mutex guards the track; files are written from copies after it is released.

#include "base/clock.h"
#include "base/files.h"
#include "base/geometry.h"
#include "capture/click_source.h"
#include "capture/cursor_track.h"
#include "capture/key_activity_source.h"
#include "capture/pointer_source.h"
#include "capture/window_frame_source.h"

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
        Rect area;
        double scale = 1.0;
        bool operator==(const Display&) const = default;
    };

    // Where the recorder reads from. Only the pointer is required: without key activity
    // every sample has k = 0, without window frames a window is not followed, without
    // clicks none are recorded. All must outlive the recorder.
    struct Sources {
        PointerSource* pointer = nullptr;
        KeyActivitySource* keys = nullptr;
        WindowFrameSource* frames = nullptr;
        ClickSource* clicks = nullptr;
    };

    // `timer` polls on the recorder's own thread; `manual` leaves every poll to pollOnce
    // (tests drive it step by step with a ManualClock).
    enum class Polling { timer, manual };

    static constexpr double pollInterval = 1.0 / 60.0;
    static constexpr double typingWindow = 1.0 / 30.0;
    static constexpr int64_t framePollEvery = 30;
    // How often the journal takes what is new: a process killed outright loses at most this
    // much of the track (plus the disk's own write-back).
    static constexpr double journalInterval = 1.0;

    // `sources.pointer` must be set. The sources and the clock must outlive the recorder.
    CursorRecorder(const Display& display, std::optional<uint32_t> windowID, Sources sources,
        const Clock& clock = UptimeClock::shared());
    ~CursorRecorder();
    CursorRecorder(const CursorRecorder&) = delete;
    CursorRecorder& operator=(const CursorRecorder&) = delete;

    // Notes the start instant, starts polling (and, with a timer, journaling) and installs
    // the click handler. Once only.
    void start(Polling polling = Polling::timer);

    // Pausing twice counts once; resuming while not paused changes nothing.
    void setPaused(bool paused);

    // Appends a Mark at the current elapsed time unless paused or stopped.
    void mark();

    // Stops polling and clicks, journals what is still new and returns the track. Nothing
    // is appended afterwards; later calls return the same track. Writing the returned track
    // beside the movie (CursorTrack::write) folds the journal in and removes it.
    CursorTrack stop();

    // While set, what is new in the track is appended to the journal beside this movie
    // (CursorTrack::journalBeside) every journalInterval, on the journal thread. A new
    // movie starts a new journal.
    void setFlushMovie(std::optional<fs::path> movie);

    // The movie's first frame came this long after start: kept in the track and carried
    // by the next journal line.
    void setVideoStartOffsetMS(int64_t offsetMS);
    // The same for the camera movie's start (first frame minus the camera's first frame).
    void setCameraOffsetMS(int64_t offsetMS);

    // One journal step: appends what was added since the last one (the journal thread's
    // work; tests call it directly). Costs in proportion to what is new. A failed append
    // is retried with the same entries on the next step.
    Status journalOnce();

    // One poll step: pointer sample, window frame (every 30th tick).
    void pollOnce();

    // Milliseconds since start with paused time left out, at `at` (see eventInstant) or now.
    int64_t elapsedMS(double at = -1) const;

    // Uptime seconds at start (0 before).
    double startUptime() const;

    // A copy of the track so far.
    CursorTrack snapshot() const;

    bool isPaused() const;
    bool isStopped() const;
    bool isClickMonitorInstalled() const;

private:
    void pollLoop();
    void journalLoop();
    void recordWindowFrame();
    void handlePress(const ClickSource::Press& press);
    void stopThreads();

    Sources m_sources;
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
    // How many entries of each list the journal already holds.
    struct Journaled {
        size_t samples = 0, clicks = 0, marks = 0, frames = 0;
        int64_t videoStartOffsetMS = 0;
        std::optional<int64_t> cameraOffsetMS;
        bool started = false; // the journal has its first line
        bool operator==(const Journaled&) const = default;
    } m_journaled;

    std::mutex m_journalLock; // one journal step at a time

    std::mutex m_threadLock; // guards the threads' lives
    std::condition_variable m_wake;
    bool m_quit = false;
    std::thread m_thread;
    std::thread m_journalThread;
};

} // namespace plim
