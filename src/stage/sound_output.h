#pragma once
// Plays the preview's sound: interleaved 32-bit float frames queued by one feeding thread,
// and how much of them has been heard so far, which is the clock the pictures follow while
// sound plays.
//
// Threads: open(), write(), setPaused() and flush() are called from one thread at a time
// (the player's sound thread); playedFrames(), writtenFrames() and latency() may be read
// from any thread at any time. write() blocks while more than about a fifth of a second
// waits to be played, so the feeding thread runs just ahead of the ear. Backends:
// sound_output_pulse.cpp (the sound server, PulseAudio) and sound_output_scripted.cpp (a
// device that plays at the real rate and keeps what it got, for tests).

#include "base/error.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace plim {

class SoundOutput {
public:
    virtual ~SoundOutput() = default;

    // The sound server's default output, or a sentence saying why there is none.
    static Result<std::unique_ptr<SoundOutput>> pulse(const std::string& streamName);

    // Starts a stream of `rate` frames a second, `channels` samples a frame.
    virtual Status open(int rate, int channels) = 0;
    // Queues `frames` frames; blocks while the queue is full. A device that went away
    // gives its sentence.
    virtual Status write(const float* samples, int64_t frames) = 0;
    // Holds or resumes playing what is queued.
    virtual void setPaused(bool paused) = 0;
    // Drops what is queued; both counts start again from 0.
    virtual void flush() = 0;
    // Frames heard since open() or the last flush(): written, less what still waits in the
    // queue and the device.
    virtual int64_t playedFrames() const = 0;
    virtual int64_t writtenFrames() const = 0;
    // Seconds between a write and its being heard.
    virtual double latency() const = 0;
    virtual int rate() const = 0;
};

// A device that plays at the real rate on the steady clock and keeps every frame written.
class ScriptedSoundOutput final : public SoundOutput {
public:
    Status open(int rate, int channels) override;
    Status write(const float* samples, int64_t frames) override;
    void setPaused(bool paused) override;
    void flush() override;
    int64_t playedFrames() const override;
    int64_t writtenFrames() const override;
    double latency() const override { return 0; }
    int rate() const override { return m_rate; }

    // Every sample written since open(), flushed ones included.
    std::vector<float> received() const;

private:
    int64_t playedLocked() const;

    mutable std::mutex m_mutex;
    int m_rate = 48000;
    int m_channels = 2;
    int64_t m_written = 0;
    int64_t m_playedBefore = 0; // frames played before the current run
    double m_runStart = -1;     // steady seconds when the current run began; negative while paused or idle
    bool m_paused = false;
    std::vector<float> m_received;
};

} // namespace plim
