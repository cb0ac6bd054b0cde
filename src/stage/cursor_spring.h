#pragma once
// The pointer's spring: a critically damped spring at 14 rad/s that chases the recorded
// pointer in fixed ticks of 1/120 s, so jitter and jumps become glides that settle in about
// half a second without overshoot. The recorded smoother and the live pointer share the tick.

#include "base/geometry.h"

namespace plim {

struct CursorSpring {
    static constexpr double step = 1.0 / 120;
    static constexpr double stiffness = 196; // 14^2
    static constexpr double damping = 28;    // 2 * 14: critical
    // Longest stretch one advance simulates; a longer gap jumps the rest.
    static constexpr double longestAdvance = 2.0;
    // One tick is due once this much time is carried (a tick less a rounding margin).
    static constexpr double tickDue = 0.008333333333299138;

    using Point = plim::Point;

    double x = 0.5;
    double y = 0.5;
    double vx = 0;
    double vy = 0;
    double carry = 0; // seconds not yet simulated
    bool operator==(const CursorSpring&) const = default;

    // One semi-implicit Euler tick of one axis toward `target`.
    static void tick(double& position, double& velocity, double target)
    {
        double acceleration = stiffness * (target - position) - damping * velocity;
        velocity += acceleration * step;
        position += velocity * step;
    }

    // Simulates dt more seconds (at most longestAdvance) toward the target in whole ticks,
    // keeping the remainder for the next call. A non-finite target or dt, or a negative dt,
    // changes nothing. Returns the position.
    Point advance(double towardX, double towardY, double dt);

    Point position() const { return {x, y}; }
};

} // namespace plim
