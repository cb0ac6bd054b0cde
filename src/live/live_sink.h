#pragma once
// Where a live frame goes: the live bar's monitor, a PipeWire camera node, a v4l2loopback
// device, a file. The pipeline calls consume() on its render thread, once per frame, in
// order; consume() must return quickly (well under a frame's time) and never block on the
// consumer: a sink that cannot take a frame counts it as dropped. health() and name() are
// called from any thread (the interface polls every 0.5 s); a sink guards its counters with
// its own lock. close() is called once, on the thread that owns the pipeline, after the
// last consume(); a closed sink may be opened again by the next consume().

#include "base/image.h"

#include <cstdint>
#include <string>
#include <variant>

namespace plim {

// One composed picture: BGRA at the live canvas size, its presentation time and length in
// seconds from the start of the run, and its number in the run (0, 1, 2, ...).
struct LiveFrame {
    Image image;
    double time = 0;
    double duration = 0;
    int64_t sequence = 0;
};

struct LiveSinkHealth {
    struct Idle {
        bool operator==(const Idle&) const = default;
    };
    struct Opening {
        bool operator==(const Opening&) const = default;
    };
    struct Running {
        int dropped = 0;
        bool operator==(const Running&) const = default;
    };
    struct Degraded {
        std::string sentence;
        bool operator==(const Degraded&) const = default;
    };
    struct Failed {
        std::string sentence;
        bool operator==(const Failed&) const = default;
    };
    std::variant<Idle, Opening, Running, Degraded, Failed> state;
    bool operator==(const LiveSinkHealth&) const = default;
};

class LiveSink {
public:
    virtual ~LiveSink() = default;
    virtual std::string name() const = 0;
    virtual void consume(const LiveFrame& frame) = 0;
    virtual LiveSinkHealth health() const = 0;
    virtual void close() = 0;
};

} // namespace plim
