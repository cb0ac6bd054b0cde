#include "app/stage_cli.h"

#include "base/text.h"

#include <cmath>
#include <cstdio>

namespace plim::StageCLI {

static std::optional<RenderRequest> scanFor(const std::vector<std::string>& arguments, const char* option, bool reframe)
{
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == option && i + 1 < arguments.size())
            return RenderRequest{arguments[i + 1], reframe};
    }
    return std::nullopt;
}

std::optional<RenderRequest> requestedRender(const std::vector<std::string>& arguments)
{
    if (auto stage = scanFor(arguments, "--stage", false))
        return stage;
    return scanFor(arguments, "--reframe", true);
}

std::string label(bool reframe) { return reframe ? "reframing" : "staging"; }

std::string progressLine(const std::string& label, double progress)
{
    double clamped = std::isfinite(progress) ? std::clamp(progress, 0.0, 1.0) : 0.0;
    long percent = static_cast<long>(std::trunc(clamped * 100.0));
    return label + " " + std::to_string(percent) + "%";
}

std::string trimSuffix(std::optional<double> trimIn, std::optional<double> trimOut, double movieDuration)
{
    if (!trimIn && !trimOut)
        return {};
    return " · trim " + numberText(trimIn.value_or(0.0), 1) + "–" + numberText(trimOut.value_or(movieDuration), 1) + "s";
}

std::string summaryLine(const RenderSummary& s)
{
    return "render: " + numberText(s.wallSeconds, 1) + "s for " + numberText(s.movieDuration, 1) + "s of plim · out "
        + numberText(s.outputDuration, 1) + "s · " + std::to_string(s.zooms) + " zooms · " + std::to_string(s.activeSkips)
        + " skips · " + std::to_string(s.cuts) + " cuts" + trimSuffix(s.trimIn, s.trimOut, s.movieDuration);
}

std::string failureLine(const std::string& label, const std::string& sentence) { return label + " failed: " + sentence; }

} // namespace plim::StageCLI
