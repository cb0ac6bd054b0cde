#pragma once
// The live sinks Plim has without any device: a movie file (headless runs, tests) and the
// live bar's monitor (the latest frame, made small when the bar asks for it).

#include "base/error.h"
#include "live/live_sink.h"

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace plim {

class MovieWriter;

// Writes the frames into a Matroska movie (H.264 at the fastest preset) on a thread of its
// own; a frame that finds `queueDepth` frames waiting is dropped (fewer than the pipeline's
// pool, so a slow encoder drops its own frames rather than starving the other sinks). The file is created with
// the first frame; an existing file is never replaced (the sink fails instead). close()
// writes what is queued and finishes the movie.
class FileLiveSink final : public LiveSink {
public:
    static constexpr size_t queueDepth = 3;

    explicit FileLiveSink(std::filesystem::path path);
    ~FileLiveSink() override;

    std::string name() const override;
    void consume(const LiveFrame& frame) override;
    LiveSinkHealth health() const override;
    void close() override;

    // What close() ended with: nothing before it, else the movie finished or why not.
    std::optional<Status> finished() const;
    int64_t framesWritten() const;

private:
    void run();
    void fail(std::string sentence);

    std::filesystem::path m_path;
    mutable std::mutex m_lock;
    std::condition_variable m_wake;
    std::deque<LiveFrame> m_queue;
    std::thread m_thread;
    bool m_closing = false;
    bool m_opened = false;
    int m_dropped = 0;
    int64_t m_written = 0;
    std::optional<std::string> m_failure;
    std::optional<Status> m_finished;
};

// The live bar's preview: keeps a handle on the newest frame (nothing is copied on the
// render thread) and makes the small picture on the asking thread.
class MonitorLiveSink final : public LiveSink {
public:
    std::string name() const override { return "Monitor"; }
    void consume(const LiveFrame& frame) override;
    LiveSinkHealth health() const override;
    void close() override;

    // The newest frame made at most `maxWidth` pixels wide (box-averaged), with its
    // number; nothing before the first frame or after close().
    std::optional<std::pair<Image, int64_t>> latest(int maxWidth) const;

private:
    mutable std::mutex m_lock;
    std::optional<LiveFrame> m_latest;
    bool m_running = false;
};

// `picture` box-averaged down to at most `maxWidth` pixels wide, keeping its shape; a
// picture already small enough is returned as it is.
Image downscaled(const Image& picture, int maxWidth);

} // namespace plim
