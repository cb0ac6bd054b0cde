#include "app/stage_cli.h"

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

static std::string format(const char* pattern, auto... values)
{
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, pattern, values...);
    return buffer;
}

std::string trimSuffix(std::optional<double> trimIn, std::optional<double> trimOut, double movieDuration)
{
    if (!trimIn && !trimOut)
        return {};
    return format(" · trim %.1f–%.1fs", trimIn.value_or(0.0), trimOut.value_or(movieDuration));
}

std::string summaryLine(const RenderSummary& s)
{
    return format("render: %.1fs for %.1fs of plim · out %.1fs · %d zooms · %d skips · %d cuts", s.wallSeconds,
               s.movieDuration, s.outputDuration, s.zooms, s.activeSkips, s.cuts)
        + trimSuffix(s.trimIn, s.trimOut, s.movieDuration);
}

std::string failureLine(const std::string& label, const std::string& sentence) { return label + " failed: " + sentence; }

} // namespace plim::StageCLI
