#pragma once
// What both Plim Camera sinks count and how they report it: opened by the first frame,
// opening until a frame is taken, running with the frames dropped, failed with a sentence
// when connecting failed or when the device refused `refusalLimit` frames in a row after
// taking some. A connection is tried at most once every `connectPace` seconds of uptime.
//
// Every member takes the one lock, so consume() on the render thread and health() from
// anywhere may meet here.

#include "live/live_sink.h"

#include <mutex>
#include <optional>
#include <string>

namespace plim {

class CameraSinkState {
public:
    static constexpr int refusalLimit = 120;
    static constexpr double connectPace = 2.0;

    // `notTaking` is the sentence for a device that stopped taking frames.
    explicit CameraSinkState(std::string notTaking) : m_notTaking(std::move(notTaking)) {}

    // The first step of every frame.
    void open();
    // Whether a connection may be tried at `now`; when it may, the attempt is recorded.
    bool mayConnect(double now);
    void connected();
    void failed(std::string sentence);
    // A frame with nowhere to go (no connection yet, nobody reading).
    void dropped();
    // A frame the connected device did not take.
    void refused();
    void taken();
    // Back to idle; the dropped count and the pace of connecting carry over.
    void close();

    LiveSinkHealth health() const;

private:
    mutable std::mutex m_lock;
    std::string m_notTaking;
    std::optional<std::string> m_sentence;
    bool m_opened = false;
    bool m_takenAny = false;
    int m_dropped = 0;
    int m_refusedInARow = 0;
    std::optional<double> m_lastConnectAttempt;
};

} // namespace plim
