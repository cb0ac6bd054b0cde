#include "app/startup.h"

#include "app/app_runtime.h"
#include "app/stage_cli.h"
#include "base/log.h"
#include "base/places.h"
#include "library/library.h"

#include <ostream>

namespace plim {

// Moves a legacy Videos/Plims library to Videos/Plim once; the move logs its own outcome.
static void runLibraryFolderMove()
{
    PlimsFolderMove::run(StorageRoot::direct(Places::home()));
}

void runStartupSteps(const std::vector<std::string>& argv)
{
    if (AppRuntime::isBundledApp() && !StageCLI::requestedRender(argv))
        runLibraryFolderMove();
    if (auto hold = AppRuntime::updaterHold(argv))
        logLine("Plim: automatic updates are off in this process because " + *hold + ".");
}

int plimMain(const std::vector<std::string>& argv, std::ostream& out, std::ostream& err, InteractiveMain interactive)
{
    if (auto request = StageCLI::requestedRender(argv)) {
        if (auto hold = AppRuntime::updaterHold(argv))
            logLine("Plim: automatic updates are off in this process because " + *hold + ".");
        return StageCLI::run(*request, out, err);
    }
    runStartupSteps(argv);
    if (interactive)
        return interactive(argv);
    out << "Plim's desktop interface is not part of this build (it was built without Qt), so there is nothing to show. "
           "Render a plim with plim --stage <movie>, or see plimctl --help for the command-line tools.\n";
    return 0;
}

} // namespace plim
