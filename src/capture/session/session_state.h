#pragma once
// The capture session's inner state, shared by its parts: the controls and the state machine
// (capture_session.cpp), the writers (session_writing.cpp), the sound routing
// (session_sound.cpp) and finishing (session_finish.cpp). The threads are those of
// capture_session.h.

#include "base/bounded_queue.h"
#include "base/files.h"
#include "capture/array_mic.h"
#include "capture/capture_session.h"
#include "media/movie_writer.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

namespace plim {

namespace session {

inline constexpr const char* diskFullBeforeFirstFrame =
    "The disk was full before the first frame could be written. Free at least 2 GB and roll again.";
inline constexpr const char* unknownWriterError = "Unknown writer error.";

// Pause spans on the uptime clock, to tell whether an instant was paused and how much
// paused time lies before it. Guarded by the session's lock.
struct PauseSpans {
    std::vector<std::pair<double, double>> closed;
    std::optional<double> open;

    bool pausedAt(double t) const
    {
        if (open && t >= *open)
            return true;
        for (const auto& [a, b] : closed)
            if (t >= a && t < b)
                return true;
        return false;
    }
    double pausedBefore(double t) const
    {
        double sum = 0;
        for (const auto& [a, b] : closed)
            if (b <= t)
                sum += b - a;
        return sum;
    }
};

struct VideoItem {
    Image image; // as captured; the writer scales it to the movie's size
    double trackSeconds; // uptime minus paused time before it
};
struct AudioItem {
    int track;
    std::vector<float> samples;
    double trackSeconds;
    bool joins; // follows the track's previous block with no break
};

// Where a sound track's blocks go in the movie. A block that joins the one before goes
// right after it, so sound is never padded or cut for the jitter of its stamps; the
// drift between its stamp and that place is taken up one frame a block (a repeated or
// skipped frame is inaudible). A block that does not join, or strays further than a
// break would, goes where its stamp says: the writer fills a gap with silence and drops
// an overlap.
struct SoundPlacement {
    static constexpr double breakFrames = 0.040 * 48000;
    int64_t next = 0; // the frame after the last one placed
    bool placed = false;
};
using QueueItem = std::variant<VideoItem, AudioItem>;

// Where the pointer is when no input could be opened: nowhere, so no sample is taken.
struct StillPointer final : PointerSource {
    std::optional<Point> position() override { return std::nullopt; }
};

// A recorded window that grows or shrinks keeps its first size in the movie, cropped or
// padded from its top-left corner, so what the movie shows is that size at the window's
// corner: the frame keys say so, and the pointer lands where the picture shows it.
struct ShownWindowFrames final : WindowFrameSource {
    WindowFrameSource& window;
    Size shown;
    ShownWindowFrames(WindowFrameSource& w, Size s) : window(w), shown(s) {}
    std::optional<Rect> windowFrame(uint32_t windowID) override
    {
        auto frame = window.windowFrame(windowID);
        if (frame && frame->width > 0 && frame->height > 0) {
            frame->width = shown.width;
            frame->height = shown.height;
        }
        return frame;
    }
};

// The tracks (and the cursor journal) of a plim that is not kept.
void removeTrackFiles(const fs::path& movie);

} // namespace session

class CaptureSession::Impl {
public:
    CaptureSettings settings;
    CaptureDevices devices;
    Options options;
    int width = 0, height = 0;
    std::unique_ptr<MovieWriter> writer;
    std::unique_ptr<MovieWriter> cameraWriter;
    std::unique_ptr<CursorRecorder> cursor;
    std::unique_ptr<KeystrokeRecorder> keystrokes;
    std::optional<session::StillPointer> stillPointer; // when no pointer source opened
    std::optional<session::ShownWindowFrames> shownFrames;
    int micTrack = -1, systemTrack = -1;
    ArrayMic::Treatment treatment;
    session::SoundPlacement placements[2]; // by track; writer thread only
    // Frames weigh one each against a budget of queueDepth (a full queue drops the frame);
    // sound weighs nothing and is held by the count alone.
    std::unique_ptr<BoundedQueue<session::QueueItem>> queue;

    mutable std::mutex lock; // guards everything below
    session::PauseSpans pauses;
    std::optional<double> firstFrameUptime;
    std::optional<double> firstTrackSeconds;
    std::optional<double> cameraFirstUptime;
    std::optional<double> cameraFirstTrack;
    int soundsFlowing = 0;        // sound sources that delivered a block
    bool soundBroken[2] = {};     // by track: a block was left out (a pause)
    bool soundFlowed[2] = {};     // by track
    std::condition_variable soundStarted;
    double lastVideoSeconds = -1;
    double writtenSeconds = 0;
    int64_t framesWritten = 0;
    int64_t framesDropped = 0;
    int64_t soundDropped = 0; // blocks of sound that found the queue full
    bool ended = false;        // no more items are taken
    std::optional<std::string> failure; // why it ended by itself
    bool failureBeforeFirstFrame = false;
    bool finished = false;
    bool cameraFailed = false;               // camera thread only
    std::jthread writerThread;
    std::jthread flushThread;

    double trackSecondsAt(double uptime) const { return uptime - pauses.pausedBefore(uptime); }
    // Says that something asked for is not being recorded.
    void missing(const std::string& sentence);

    // State (capture_session.cpp).
    void endWith(std::string headline, bool beforeFirstFrame = false);
    void screenEnded(const Error& error);
    void stopSources();
    void undoStart();

    // Writers (session_writing.cpp).
    Status openWriters();
    void onFrame(CapturedFrame&& frame);
    void onCameraFrame(CapturedFrame&& frame);
    void journalCameraOffset();
    void writeLoop(std::stop_token stop);
    Status appendSound(const session::AudioItem& audio, double first);
    void flushLoop(std::stop_token stop);

    // Sound (session_sound.cpp): starts the sound streams and waits up to `wait` for them to flow.
    void startSound(std::chrono::steady_clock::duration wait);
    void onSound(SoundSource::Kind kind, SoundBlock&& block);
};

} // namespace plim
