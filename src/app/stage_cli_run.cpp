#include "app/plan_report.h"
#include "app/stage_cli.h"

#include <ostream>

namespace plim::StageCLI {

int run(const RenderRequest& request, std::ostream& out, std::ostream& err)
{
    const std::string verb = label(request.reframe);
    auto report = gatherPlan(request.movie);
    if (!report) {
        err << failureLine(verb, report.error().sentence) << "\n";
        return 1;
    }
    std::error_code ec;
    if (!std::filesystem::is_regular_file(request.movie, ec)) {
        err << failureLine(verb, "There is no movie at " + request.movie.string()
                + ", only its side files. Nothing was rendered or changed; check the path and try again.")
            << "\n";
        return 1;
    }
    // The renderer is not part of this build: say what would be rendered, from what.
    auto output = sidecarPath(request.movie, request.reframe ? "reframe.mp4" : "staged.mov");
    out << "would " << (request.reframe ? "reframe " : "stage ") << request.movie.string() << " into "
        << output.string() << " (rendering is not part of this build yet)\n";
    printPlan(*report, out);
    return 0;
}

} // namespace plim::StageCLI
