#include "capture/cursor_recorder.h"

#include "base/log.h"

#include <chrono>
#include <cmath>
#include <pthread.h>

namespace plim {

namespace {

bool finite(double v) { return std::isfinite(v); }

int64_t millisecondsFrom(double seconds)
{
    double ms = std::max(seconds, 0.0) * 1000.0;
    if (!(ms < 9.2e18))
        return INT64_MAX;
    return static_cast<int64_t>(ms); // truncation toward zero
}

} // namespace

CursorRecorder::CursorRecorder(const Display& display, std::optional<uint32_t> windowID, Sources sources,
    const Clock& clock)
    : m_sources(sources)
    , m_clock(clock)
    , m_windowID(windowID)
{
    m_track.displayX = display.area.x;
    m_track.displayY = display.area.y;
    m_track.displayWidth = display.area.width;
    m_track.displayHeight = display.area.height;
    m_track.scale = display.scale;
}

CursorRecorder::~CursorRecorder() { stop(); }

void CursorRecorder::start(Polling polling)
{
    {
        std::lock_guard lock(m_lock);
        if (m_started || m_stopped)
            return;
        m_started = true;
        m_startUptime = m_clock.uptime();
    }
    if (polling == Polling::timer) {
        std::lock_guard lock(m_threadLock);
        m_quit = false;
        m_thread = std::thread([this] { pollLoop(); });
        m_journalThread = std::thread([this] { journalLoop(); });
    }

    ClickSource* clicks = m_sources.clicks;
    if (!clicks)
        return;
    {
        std::lock_guard lock(m_lock);
        if (m_stopped || m_clickToken)
            return;
    }
    auto token = clicks->install([this](const ClickSource::Press& press) { handlePress(press); });
    if (!token) {
        logLine(LogArea::main, token.error().sentence);
        return;
    }
    bool lateStop = false;
    {
        std::lock_guard lock(m_lock);
        if (m_stopped || m_clickToken)
            lateStop = true;
        else
            m_clickToken = *token;
    }
    if (lateStop)
        clicks->remove(*token);
}

void CursorRecorder::pollLoop()
{
    pthread_setname_np(pthread_self(), "plim.cursor");
    using namespace std::chrono;
    const auto interval = duration_cast<steady_clock::duration>(duration<double>(pollInterval));
    auto next = steady_clock::now();
    std::unique_lock lock(m_threadLock);
    while (!m_quit) {
        lock.unlock();
        pollOnce();
        lock.lock();
        next += interval;
        auto now = steady_clock::now();
        if (next + milliseconds(100) < now)
            next = now; // fell far behind (suspend, stall): resume the cadence, don't burst
        m_wake.wait_until(lock, next, [this] { return m_quit; });
    }
}

void CursorRecorder::journalLoop()
{
    pthread_setname_np(pthread_self(), "plim.cursor.jrn");
    using namespace std::chrono;
    const auto interval = duration_cast<steady_clock::duration>(duration<double>(journalInterval));
    std::unique_lock lock(m_threadLock);
    while (!m_wake.wait_for(lock, interval, [this] { return m_quit; })) {
        lock.unlock();
        // A failed append keeps its entries for the next one and for the final write.
        if (auto appended = journalOnce(); !appended)
            logLine(LogArea::main, appended.error().sentence);
        lock.lock();
    }
}

void CursorRecorder::stopThreads()
{
    std::thread threads[2];
    {
        std::lock_guard lock(m_threadLock);
        m_quit = true;
        threads[0] = std::move(m_thread);
        threads[1] = std::move(m_journalThread);
    }
    m_wake.notify_all();
    for (auto& thread : threads) {
        if (!thread.joinable())
            continue;
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();
        else
            thread.join();
    }
}

void CursorRecorder::setVideoStartOffsetMS(int64_t offsetMS)
{
    std::lock_guard lock(m_lock);
    m_track.videoStartOffsetMS = offsetMS;
}

void CursorRecorder::setCameraOffsetMS(int64_t offsetMS)
{
    std::lock_guard lock(m_lock);
    m_track.cameraOffsetMS = offsetMS;
}

Status CursorRecorder::journalOnce()
{
    std::lock_guard journal(m_journalLock);
    CursorTrack chunk;
    fs::path movie;
    Journaled upTo;
    {
        std::lock_guard lock(m_lock);
        if (!m_flushMovie)
            return {};
        movie = *m_flushMovie;
        const CursorTrack& t = m_track;
        upTo = {t.samples.size(), t.clicks.size(), t.marks.size(), t.frames.size(), t.videoStartOffsetMS,
            t.cameraOffsetMS, true};
        if (upTo == m_journaled)
            return {}; // nothing new since the last line
        chunk = CursorTrack{t.displayX, t.displayY, t.displayWidth, t.displayHeight, t.scale, t.videoStartOffsetMS,
            t.subjectKind, t.cameraOffsetMS};
        auto tail = [](const auto& from, size_t first) {
            return std::vector(from.begin() + static_cast<std::ptrdiff_t>(first), from.end());
        };
        chunk.samples = tail(t.samples, m_journaled.samples);
        chunk.clicks = tail(t.clicks, m_journaled.clicks);
        chunk.marks = tail(t.marks, m_journaled.marks);
        chunk.frames = tail(t.frames, m_journaled.frames);
    }
    PLIM_TRY(chunk.appendToJournal(movie));
    std::lock_guard lock(m_lock);
    if (m_flushMovie == movie)
        m_journaled = upTo;
    return {};
}

int64_t CursorRecorder::elapsedMS(double at) const
{
    std::lock_guard lock(m_lock);
    if (!m_started)
        return 0;
    double now = m_clock.uptime();
    at = eventInstant(at, now);
    double e = at - m_startUptime - m_pausedAccum;
    if (m_pausedSince)
        e -= std::max(0.0, at - *m_pausedSince);
    return millisecondsFrom(std::max(0.0, e));
}

void CursorRecorder::pollOnce()
{
    auto position = m_sources.pointer->position();
    if (!position || !finite(position->x) || !finite(position->y))
        return;

    bool frameDue = false;
    {
        std::lock_guard lock(m_lock);
        if (!m_started)
            return;
        ++m_pollCount;
        frameDue = m_windowID && m_pollCount % framePollEvery == 1;
    }
    if (frameDue)
        recordWindowFrame();

    double sinceKey = m_sources.keys ? m_sources.keys->secondsSinceLastKeyDown() : INFINITY;
    int64_t ms = elapsedMS();

    std::lock_guard lock(m_lock);
    if (m_stopped || m_pausedFlag)
        return;
    m_track.samples.push_back(CursorSample{ms, roundToTenth(position->x), roundToTenth(position->y),
        sinceKey < typingWindow ? 1 : 0});
}

void CursorRecorder::recordWindowFrame()
{
    std::optional<uint32_t> windowID;
    {
        std::lock_guard lock(m_lock);
        windowID = m_windowID;
    }
    if (!windowID || !m_sources.frames)
        return;
    auto frame = m_sources.frames->windowFrame(*windowID);
    if (!frame || !finite(frame->x) || !finite(frame->y) || !finite(frame->width) || !finite(frame->height)
        || !(frame->width > 0) || !(frame->height > 0))
        return;
    int64_t ms = elapsedMS();

    std::lock_guard lock(m_lock);
    CursorTrack::FrameKey previous{0, m_track.displayX, m_track.displayY, m_track.displayWidth, m_track.displayHeight};
    if (!m_track.frames.empty())
        previous = m_track.frames.back();
    if (frame->x == previous.x && frame->y == previous.y && frame->width == previous.w && frame->height == previous.h)
        return;
    // Frames are kept while paused too, stamped with the paused clock.
    if (!m_stopped)
        m_track.frames.push_back(CursorTrack::FrameKey{ms, frame->x, frame->y, frame->width, frame->height});
}

void CursorRecorder::handlePress(const ClickSource::Press& press)
{
    if (press.button != ClickSource::Button::left && press.button != ClickSource::Button::right)
        return;
    if (!finite(press.x) || !finite(press.y))
        return;
    int64_t ms = elapsedMS(press.at);
    std::lock_guard lock(m_lock);
    if (m_stopped || m_pausedFlag)
        return;
    m_track.clicks.push_back(ClickEvent{ms, press.x, press.y});
}

void CursorRecorder::setPaused(bool paused)
{
    std::lock_guard lock(m_lock);
    double now = m_clock.uptime();
    if (paused) {
        if (!m_pausedSince) {
            m_pausedSince = now;
            m_pausedFlag = true;
        }
    } else if (m_pausedSince) {
        m_pausedAccum += now - *m_pausedSince;
        m_pausedSince.reset();
        m_pausedFlag = false;
    }
}

void CursorRecorder::mark()
{
    int64_t ms = elapsedMS();
    std::lock_guard lock(m_lock);
    if (m_stopped || m_pausedFlag)
        return;
    m_track.marks.push_back(Mark{ms});
}

CursorTrack CursorRecorder::stop()
{
    stopThreads();
    std::optional<ClickSource::Token> token;
    bool wasStopped = false;
    {
        std::lock_guard lock(m_lock);
        wasStopped = std::exchange(m_stopped, true);
        token = std::exchange(m_clickToken, std::nullopt);
    }
    if (token && m_sources.clicks)
        m_sources.clicks->remove(*token);
    if (!wasStopped)
        if (auto appended = journalOnce(); !appended)
            logLine(LogArea::main, appended.error().sentence);
    return snapshot();
}

void CursorRecorder::setFlushMovie(std::optional<fs::path> movie)
{
    std::lock_guard journal(m_journalLock);
    std::lock_guard lock(m_lock);
    if (movie != m_flushMovie)
        m_journaled = {};
    m_flushMovie = std::move(movie);
}

double CursorRecorder::startUptime() const
{
    std::lock_guard lock(m_lock);
    return m_startUptime;
}

CursorTrack CursorRecorder::snapshot() const
{
    std::lock_guard lock(m_lock);
    return m_track;
}

bool CursorRecorder::isPaused() const
{
    std::lock_guard lock(m_lock);
    return m_pausedFlag;
}

bool CursorRecorder::isStopped() const
{
    std::lock_guard lock(m_lock);
    return m_stopped;
}

bool CursorRecorder::isClickMonitorInstalled() const
{
    std::lock_guard lock(m_lock);
    return m_clickToken.has_value();
}

} // namespace plim
