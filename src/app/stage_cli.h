#pragma once
// The headless render asked for on the command line (`plim --stage <movie>` or
// `plim --reframe <movie>`) and the lines it prints.

#include "base/error.h"

#include <filesystem>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace plim {

struct RenderRequest {
    std::filesystem::path movie;
    bool reframe = false;
    bool operator==(const RenderRequest&) const = default;
};

// What a finished render reports for its summary line.
struct RenderSummary {
    double wallSeconds = 0;
    double movieDuration = 0;
    double outputDuration = 0;
    int zooms = 0;
    int activeSkips = 0;
    int cuts = 0;
    std::optional<double> trimIn;
    std::optional<double> trimOut;
};

namespace StageCLI {

// "--stage" followed by an argument wins; otherwise "--reframe" followed by one.
// An option that is the last argument counts as not given.
std::optional<RenderRequest> requestedRender(const std::vector<std::string>& arguments);

// "staging" or "reframing".
std::string label(bool reframe);

// "staging 42%": p in 0...1, truncated toward zero.
std::string progressLine(const std::string& label, double progress);

// "render: 3.2s for 60.0s of plim · out 41.5s · 3 zooms · 2 skips · 1 cuts · trim 0.0–12.0s"
std::string summaryLine(const RenderSummary& summary);
std::string trimSuffix(std::optional<double> trimIn, std::optional<double> trimOut, double movieDuration);

// "staging failed: <sentence>"
std::string failureLine(const std::string& label, const std::string& sentence);

// Runs the render for a request, printing progress and results to `out` and failures to
// `err`. Returns the process exit status (0 or 1).
int run(const RenderRequest& request, std::ostream& out, std::ostream& err);

} // namespace StageCLI

} // namespace plim
