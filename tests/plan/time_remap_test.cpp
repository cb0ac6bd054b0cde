#include "plan/time_remap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

using namespace plim;

namespace {

using Step = TimeRemap::Step;

Step cut(double a, double b) { return Step{{a, b}, RemapMode::cut()}; }
Step rate(double a, double b, double r) { return Step{{a, b}, RemapMode::rate(r)}; }

// A cut's start already belongs to it: it plays as the cut's end.
bool insideCut(const std::vector<Step>& steps, double t)
{
    for (const Step& s : steps)
        if (s.mode.isCut() && t >= s.span.start && t < s.span.end) return true;
    return false;
}

// Output time as source time less what each step takes away before t.
double expectedOutput(const std::vector<Step>& steps, double t)
{
    double out = t;
    for (const Step& s : steps) {
        double passed = std::clamp(t - s.span.start, 0.0, s.span.length());
        out -= s.mode.isCut() ? passed : passed * (1 - 1 / s.mode.r);
    }
    return out;
}

} // namespace

// Cuts collapse to one output instant, which maps back to the cut's end; rate steps play
// faster; the two directions agree everywhere else.
TEST(TimeRemap, ManyStepsMapBothWaysConsistently)
{
    std::mt19937 random(20240611);
    std::uniform_real_distribution<double> gap(0.0, 3.0), length(0.0, 4.0), speed(0.5, 16.0);
    std::bernoulli_distribution isCut(0.4), touching(0.2);
    for (int round = 0; round < 20; ++round) {
        std::vector<Step> steps;
        double at = round % 4 == 0 ? 0.0 : gap(random); // some start with the recording
        for (int i = 0; i < 60; ++i) {
            double end = at + length(random);
            steps.push_back(isCut(random) ? cut(at, end) : rate(at, end, speed(random)));
            at = touching(random) ? end : end + gap(random);
        }
        TimeRemap remap(steps);
        ASSERT_EQ(remap.steps(), steps);
        // input() of the instant where a rate step runs straight into a cut gives the cut's
        // start rather than its end; that one instant is not round-tripped here.
        std::vector<double> joins;
        for (std::size_t i = 0; i + 1 < steps.size(); ++i)
            if (!steps[i].mode.isCut() && steps[i + 1].mode.isCut() && steps[i].span.end == steps[i + 1].span.start)
                joins.push_back(remap.output(steps[i].span.end));
        auto atJoin = [&](double o) { return std::ranges::any_of(joins, [&](double j) { return std::abs(j - o) < 1e-12; }); };
        std::vector<double> times;
        for (double t = -1; t < at + 2; t += 0.0371)
            times.push_back(t);
        for (const Step& s : steps)
            times.insert(times.end(), {s.span.start, s.span.end});
        for (double t : times) {
            double o = remap.output(t);
            EXPECT_NEAR(o, expectedOutput(steps, t), 1e-9) << "source " << t;
            if (atJoin(o))
                continue;
            double back = remap.input(o);
            EXPECT_FALSE(insideCut(steps, back)) << "source " << t << " comes back inside a cut at " << back;
            if (!insideCut(steps, t)) {
                EXPECT_NEAR(back, t, 1e-9) << "source " << t;
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
    EXPECT_EQ(remap.steps(), (std::vector<Step>{cut(5, 8), rate(8, 10, 2), rate(20, 24, 4)}));
    TimeRemap none({cut(nan, 3), rate(1, 2, 0)});
    EXPECT_TRUE(none.steps().empty());
    EXPECT_TRUE(none.output(-3) == -3 && none.output(17.5) == 17.5 && none.input(3600) == 3600);
    EXPECT_DOUBLE_EQ(remap.output(1.5), 1.5);
    EXPECT_DOUBLE_EQ(remap.output(10), 6);
    EXPECT_TRUE(std::isnan(remap.output(nan)));
    EXPECT_TRUE(std::isnan(remap.input(nan)));
    EXPECT_EQ(remap.output(inf), inf);
}
