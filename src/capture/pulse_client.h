#pragma once
// A client of the PulseAudio sound server on a threaded main loop of its own: what the
// sound sources here and the preview's sound output (stage/) share. Only those backends
// include it.
//
// Threads: the main loop runs on its own thread. Any other thread holds PulseLock while it
// touches the context or its streams; callbacks run on the loop's thread with the lock
// already held.

#include "base/error.h"

#include <pulse/pulseaudio.h>

#include <string>

namespace plim {

class PulseLock {
public:
    explicit PulseLock(pa_threaded_mainloop* loop) : m_loop(loop) { pa_threaded_mainloop_lock(m_loop); }
    ~PulseLock() { pa_threaded_mainloop_unlock(m_loop); }
    PulseLock(const PulseLock&) = delete;
    PulseLock& operator=(const PulseLock&) = delete;

private:
    pa_threaded_mainloop* m_loop;
};

class PulseClient {
public:
    PulseClient() = default;
    // Stops the loop and disconnects; the owner has disconnected its streams by then.
    ~PulseClient();
    PulseClient(const PulseClient&) = delete;
    PulseClient& operator=(const PulseClient&) = delete;

    // Connects to the server without starting one and runs the loop; fails with
    // `unreachable` when no server answers.
    Status connect(const std::string& unreachable);

    pa_threaded_mainloop* loop() const { return m_loop; }
    pa_context* context() const { return m_context; }

    // With the lock held: waits for an operation to end, and for a stream to become ready
    // (false when it failed instead).
    void wait(pa_operation* op) const;
    bool waitReady(pa_stream* stream) const;
    // A callback that wakes whoever waits on the loop; its data is the loop.
    static void signal(pa_stream*, void* loop) { pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0); }

private:
    pa_threaded_mainloop* m_loop = nullptr;
    pa_context* m_context = nullptr;
};

} // namespace plim
