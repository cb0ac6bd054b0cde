#pragma once
// The two-way mapping between source time (seconds of the recorded movie) and output time
// (seconds of the finished video), built from the plan's cut and rate steps.

#include "plan/remap_step.h"

#include <vector>

namespace plim {

struct EditPlan;

class TimeRemap {
public:
    using Step = RemapStep;
    using Mode = RemapMode;

    TimeRemap() = default;
    // Steps are put in order of start. A step with a non-finite bound, an end before its
    // start, or a rate that is not a positive finite number is left out (that time plays at
    // speed 1); a step that overlaps the one before it loses its overlapping part.
    explicit TimeRemap(std::vector<Step> steps);
    // The plan's steps over a recording of `rawDuration` seconds.
    static TimeRemap of(const EditPlan& plan, double rawDuration);

    const std::vector<Step>& steps() const { return m_steps; }

    // Source seconds -> output seconds. Any source time inside a cut maps to the output
    // instant at which the cut sits.
    double output(double source) const;
    // Output seconds -> source seconds. The output instant of a cut maps to the cut's end,
    // except where a sped-up stretch runs straight into the cut: its last instant maps to
    // its own end, which is where the cut starts.
    double input(double output) const;
    // Length of the finished video for a recording of `rawDuration` seconds.
    double outputDuration(double rawDuration) const { return output(rawDuration); }

    bool operator==(const TimeRemap& other) const { return m_steps == other.m_steps; }

private:
    // Running totals of the mapping just before each step, so a query starts at the
    // step it needs (found by binary search) instead of walking from the first one.
    struct Before {
        double source = 0; // source time reached
        double output = 0; // output time reached
    };

    std::vector<Step> m_steps;
    std::vector<Before> m_before;
    std::vector<double> m_stepOutputEnd; // output time at which each step ends
};

} // namespace plim
