#include "plan/time_remap.h"

#include "plan/edit_plan.h"

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

bool usable(const RemapStep& step)
{
    if (!std::isfinite(step.span.start) || !std::isfinite(step.span.end) || step.span.end < step.span.start)
        return false;
    if (step.mode.isCut())
        return true;
    return std::isfinite(step.mode.r) && step.mode.r > 0;
}

} // namespace

TimeRemap::TimeRemap(std::vector<Step> steps)
{
    std::erase_if(steps, [](const Step& step) { return !usable(step); });
    std::stable_sort(steps.begin(), steps.end(),
        [](const Step& a, const Step& b) { return a.span.start < b.span.start; });

    m_steps.reserve(steps.size());
    for (Step step : steps) {
        if (!m_steps.empty()) {
            double previousEnd = m_steps.back().span.end;
            if (step.span.end <= previousEnd)
                continue;
            step.span.start = std::max(step.span.start, previousEnd);
        }
        m_steps.push_back(step);
    }

    // The same sums, in the same order, as a walk from the first step would make.
    m_before.reserve(m_steps.size());
    m_stepOutputEnd.reserve(m_steps.size());
    double cursor = 0;
    double out = 0;
    for (const Step& step : m_steps) {
        m_before.push_back({cursor, out});
        out += step.span.start - cursor;
        cursor = step.span.end;
        if (!step.mode.isCut())
            out += (cursor - step.span.start) / step.mode.r;
        m_stepOutputEnd.push_back(out);
    }
}

TimeRemap TimeRemap::of(const EditPlan& plan, double rawDuration)
{
    return TimeRemap(plan.steps(rawDuration));
}

double TimeRemap::output(double t) const
{
    if (!std::isfinite(t) || m_steps.empty())
        return t;
    // Every step that ends before t is passed whole.
    auto first = std::lower_bound(m_steps.begin(), m_steps.end(), t,
        [](const Step& step, double value) { return step.span.end < value; });
    size_t index = static_cast<size_t>(first - m_steps.begin());
    double cursor = index < m_before.size() ? m_before[index].source : m_steps.back().span.end;
    double out = index < m_before.size() ? m_before[index].output : m_stepOutputEnd.back();
    for (; index < m_steps.size(); ++index) {
        const Step& step = m_steps[index];
        if (t <= step.span.start)
            break;
        out += step.span.start - cursor;
        cursor = std::min(step.span.end, t);
        if (!step.mode.isCut())
            out += (cursor - step.span.start) / step.mode.r;
        if (t <= step.span.end)
            return out;
    }
    return out + (t - cursor);
}

double TimeRemap::input(double o) const
{
    if (!std::isfinite(o) || m_steps.empty())
        return o;
    // Every step whose output ends before o is passed whole.
    auto first = std::lower_bound(m_stepOutputEnd.begin(), m_stepOutputEnd.end(), o);
    size_t index = static_cast<size_t>(first - m_stepOutputEnd.begin());
    double src = index < m_before.size() ? m_before[index].source : m_steps.back().span.end;
    double out = index < m_before.size() ? m_before[index].output : m_stepOutputEnd.back();
    for (; index < m_steps.size(); ++index) {
        const Step& step = m_steps[index];
        double stepStart = out + (step.span.start - src);
        if (o < stepStart)
            return src + (o - out);
        src = step.span.end;
        if (step.mode.isCut()) {
            out = stepStart;
        } else {
            out = stepStart + (step.span.end - step.span.start) / step.mode.r;
            if (o <= out)
                return step.span.start + step.mode.r * (o - stepStart);
        }
    }
    return src + (o - out);
}

} // namespace plim
