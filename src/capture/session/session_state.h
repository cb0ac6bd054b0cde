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
};
using QueueItem = std::variant<VideoItem, AudioItem>;

// Where the pointer is when no input could be opened: nowhere, so no sample is taken.
struct StillPointer final : PointerSource {
    std::optional<Point> position() override { return std::nullopt; }
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
    int micTrack = -1, systemTrack = -1;
    ArrayMic::Treatment treatment;
    // Frames weigh one each against a budget of queueDepth (a full queue drops the frame);
    // sound weighs nothing and is held by the count alone.
    std::unique_ptr<BoundedQueue<session::QueueItem>> queue;

    mutable std::mutex lock; // guards everything below
    session::PauseSpans pauses;
    std::optional<double> firstFrameUptime;
    std::optional<double> firstTrackSeconds;
    std::optional<double> cameraFirstUptime;
    std::optional<double> cameraFirstTrack;
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

    // State (capture_session.cpp).
    void endWith(std::string headline, bool beforeFirstFrame = false);
    void screenEnded(const Error& error);
    void stopSources();
    void undoStart();

    // Writers (session_writing.cpp).
    Status openWriters();
    void onFrame(CapturedFrame&& frame);
    void onCameraFrame(CapturedFrame&& frame);
    void writeLoop(std::stop_token stop);
    Status appendSound(const session::AudioItem& audio, double first);
    void flushLoop(std::stop_token stop);

    // Sound (session_sound.cpp).
    void startSound();
    void onSound(SoundSource::Kind kind, SoundBlock&& block);
};

} // namespace plim
