#pragma once
// One step of the mapping between source time and output time: a stretch of source
// time that either does not play (cut) or plays at a speed other than 1 (rate).

namespace plim {

// Source or output seconds closer than this are the same instant.
inline constexpr double timeEpsilon = 1e-6;

// A stretch of source time in seconds.
struct IdleSpan {
    double start = 0;
    double end = 0;

    double length() const { return end - start; }
    bool operator==(const IdleSpan&) const = default;
};

struct RemapMode {
    enum class Kind { rate, cut };

    Kind kind = Kind::rate;
    // Source seconds per output second; meaningful for `rate` (4.0 plays four times as fast).
    double r = 1.0;

    static constexpr RemapMode rate(double r) { return RemapMode{Kind::rate, r}; }
    static constexpr RemapMode cut() { return RemapMode{Kind::cut, 0.0}; }
    bool isCut() const { return kind == Kind::cut; }
    bool operator==(const RemapMode&) const = default;
};

struct RemapStep {
    IdleSpan span;
    RemapMode mode;

    bool operator==(const RemapStep&) const = default;
};

} // namespace plim
