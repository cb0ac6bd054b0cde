#include "plan/edit_plan.h"
#include "plan/time_remap.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using namespace plim;

namespace {

using Step = TimeRemap::Step;
using Mode = TimeRemap::Mode;

Step cut(double a, double b) { return Step{{a, b}, Mode::cut()}; }
Step rate(double a, double b, double r) { return Step{{a, b}, Mode::rate(r)}; }

// The mapping walked from the first step on every call, for comparison with the
// indexed lookups.
double walkOutput(const std::vector<Step>& steps, double t)
{
    double out = 0, cursor = 0;
    for (const Step& s : steps) {
        if (t <= s.span.start) break;
        out += s.span.start - cursor;
        cursor = std::min(s.span.end, t);
        if (!s.mode.isCut()) out += (cursor - s.span.start) / s.mode.r;
        if (t <= s.span.end) return out;
    }
    return out + (t - cursor);
}

double walkInput(const std::vector<Step>& steps, double o)
{
    double src = 0, out = 0;
    for (const Step& s : steps) {
        double a = out + (s.span.start - src);
        if (o < a) return src + (o - out);
        src = s.span.end;
        if (s.mode.isCut()) {
            out = a;
        } else {
            out = a + (s.span.end - s.span.start) / s.mode.r;
            if (o <= out) return s.span.start + s.mode.r * (o - a);
        }
    }
    return src + (o - out);
}

// A cut's start already belongs to it: it plays as the cut's end.
bool insideCut(const std::vector<Step>& steps, double t)
{
    for (const Step& s : steps)
        if (s.mode.isCut() && t >= s.span.start && t < s.span.end) return true;
    return false;
}

} // namespace

TEST(TimeRemap, RateStepsPlayFasterAndCutsCollapseToOneInstant)
{
    TimeRemap none;
    for (double t : {-3.0, 0.0, 17.5, 3600.0})
        EXPECT_TRUE(none.output(t) == t && none.input(t) == t) << t;

    TimeRemap fast({rate(10, 14, 4)});
    EXPECT_DOUBLE_EQ(fast.output(12), 10.5);
    EXPECT_DOUBLE_EQ(fast.input(10.5), 12);
    EXPECT_DOUBLE_EQ(fast.output(20), 17);
    EXPECT_DOUBLE_EQ(fast.input(17), 20);

    TimeRemap cutOut({cut(5, 8)});
    EXPECT_DOUBLE_EQ(cutOut.output(6), 5);
    EXPECT_DOUBLE_EQ(cutOut.output(8), 5);
    EXPECT_DOUBLE_EQ(cutOut.output(9), 6);
    EXPECT_DOUBLE_EQ(cutOut.input(5), 8);
    EXPECT_DOUBLE_EQ(cutOut.input(4.999), 4.999);
}

TEST(TimeRemap, StepsAtTheEdgesOfTheRecording)
{
    // Trimmed head and tail, as the plan makes them.
    TimeRemap trimmed({cut(0, 2), cut(8, 10)});
    EXPECT_DOUBLE_EQ(trimmed.output(0), 0);
    EXPECT_DOUBLE_EQ(trimmed.output(1), 0);
    EXPECT_DOUBLE_EQ(trimmed.output(2), 0);
    EXPECT_DOUBLE_EQ(trimmed.input(0), 2);
    EXPECT_DOUBLE_EQ(trimmed.outputDuration(10), 6);
    EXPECT_DOUBLE_EQ(trimmed.input(6), 10);
    EXPECT_DOUBLE_EQ(trimmed.input(5.5), 7.5);
    EXPECT_DOUBLE_EQ(trimmed.output(9.5), 6);

    // Sped-up head and tail.
    TimeRemap fast({rate(0, 4, 2), rate(6, 10, 8)});
    EXPECT_DOUBLE_EQ(fast.output(0), 0);
    EXPECT_DOUBLE_EQ(fast.input(0), 0);
    EXPECT_DOUBLE_EQ(fast.output(4), 2);
    EXPECT_DOUBLE_EQ(fast.outputDuration(10), 4.5);
    EXPECT_DOUBLE_EQ(fast.input(4.5), 10);
    EXPECT_DOUBLE_EQ(fast.input(4.25), 8);

    // A cut handing straight over to a rate step: the cut's instant is the rate step's start.
    TimeRemap joined({cut(5, 8), rate(8, 12, 4)});
    EXPECT_DOUBLE_EQ(joined.input(5), 8);
    EXPECT_DOUBLE_EQ(joined.input(5.5), 10);
    EXPECT_DOUBLE_EQ(joined.output(12), 6);
    EXPECT_DOUBLE_EQ(joined.input(6), 12);
    EXPECT_DOUBLE_EQ(joined.input(7), 13);
}

TEST(TimeRemap, RoundTripsBothWays)
{
    std::vector<Step> steps{cut(0, 1.5), rate(3, 5, 4), cut(5, 6), rate(9, 9.5, 2.5), cut(12, 20), rate(25, 40, 8)};
    TimeRemap remap(steps);
    double duration = 45;
    double outputDuration = remap.outputDuration(duration);
    for (double t = 0; t <= duration; t += 0.01) {
        if (insideCut(steps, t)) continue;
        EXPECT_NEAR(remap.input(remap.output(t)), t, 1e-9) << "source " << t;
    }
    double previous = -1;
    for (double o = 0; o <= outputDuration; o += 0.01) {
        double source = remap.input(o);
        EXPECT_FALSE(insideCut(steps, source)) << "output " << o << " lands inside a cut at " << source;
        EXPECT_NEAR(remap.output(source), o, 1e-9) << "output " << o;
        EXPECT_GE(source, previous);
        previous = source;
    }
}

TEST(TimeRemap, IndexedLookupsAgreeWithAWalkFromTheStart)
{
    std::mt19937 random(20240611);
    std::uniform_real_distribution<double> gap(0.0, 3.0), length(0.0, 4.0), speed(0.5, 16.0);
    std::bernoulli_distribution isCut(0.4), touching(0.2);
    for (int round = 0; round < 40; ++round) {
        std::vector<Step> steps;
        double at = gap(random);
        for (int i = 0; i < 60; ++i) {
            double end = at + length(random);
            steps.push_back(isCut(random) ? cut(at, end) : rate(at, end, speed(random)));
            at = touching(random) ? end : end + gap(random);
        }
        TimeRemap remap(steps);
        ASSERT_EQ(remap.steps(), steps);
        for (double t = -1; t < at + 2; t += 0.0371) {
            EXPECT_EQ(remap.output(t), walkOutput(steps, t)) << "source " << t;
            EXPECT_EQ(remap.input(t), walkInput(steps, t)) << "output " << t;
        }
        for (const Step& s : steps) {
            for (double t : {s.span.start, s.span.end}) {
                EXPECT_EQ(remap.output(t), walkOutput(steps, t));
                double o = remap.output(t);
                EXPECT_EQ(remap.input(o), walkInput(steps, o));
            }
        }
    }
}

TEST(TimeRemap, UnusableStepsAreLeftOutAndOverlapsClipped)
{
    double nan = std::nan("");
    double inf = std::numeric_limits<double>::infinity();
    TimeRemap remap({rate(20, 24, 4), cut(nan, 3), rate(1, 2, 0), rate(2, 3, -2), rate(3, 4, inf), cut(9, 6),
        cut(5, 8), rate(7, 10, 2), cut(6, 7)});
    std::vector<Step> expected{cut(5, 8), rate(8, 10, 2), rate(20, 24, 4)};
    EXPECT_EQ(remap.steps(), expected);
    EXPECT_DOUBLE_EQ(remap.output(1.5), 1.5);
    EXPECT_DOUBLE_EQ(remap.output(10), 6);
    EXPECT_TRUE(std::isnan(remap.output(nan)));
    EXPECT_TRUE(std::isnan(remap.input(nan)));
    EXPECT_EQ(remap.output(inf), inf);
}

TEST(TimeRemap, BuiltFromAPlan)
{
    EditPlan plan;
    plan.trimIn = 2;
    plan.trimOut = 18;
    plan.skips = {SkipDecision{{4, 8}, false, 4.0}, SkipDecision{{10, 12}, true, 4.0}};
    plan.cuts = {CutRange{"C0A4B3E8-9B0E-4F4B-8A60-2D1E6A3B7C11", 14, 15, std::nullopt}};
    TimeRemap remap = TimeRemap::of(plan, 20);
    // 2..18 is 16 s; the cut removes 1 s; 4 s at 4x play in 1 s.
    EXPECT_DOUBLE_EQ(remap.outputDuration(20), 12);
    EXPECT_DOUBLE_EQ(remap.input(0), 2);
    EXPECT_DOUBLE_EQ(remap.output(6), 2.5);
    EXPECT_DOUBLE_EQ(remap.output(11), 6);
    EXPECT_DOUBLE_EQ(remap.input(9), 15);
}
