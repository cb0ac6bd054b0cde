#include "app/ctl_demo.h"
#include "app/ctl_plan.h"
#include "app/plimctl.h"

namespace plim {

const std::vector<CtlCommand>& ctlCommands()
{
    static const std::vector<CtlCommand> commands = {
        {"demo", "write a made-up plim to try the other commands on", runDemoCommand},
        {"plan", "print the edit plan a render of a plim would use", runPlanCommand},
    };
    return commands;
}

} // namespace plim
