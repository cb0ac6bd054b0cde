#include "app/ctl_demo.h"

#include "app/demo_plim.h"

#include <ostream>

namespace plim {

int runDemoCommand(const CtlArgs& args, std::ostream& out, std::ostream& err)
{
    auto options = parseCtlOptions(args, {}, {}, "demo");
    if (!options) {
        err << options.error().sentence << "\n";
        return 1;
    }
    if (options->help) {
        out << "usage: plimctl demo <folder>\n\n"
               "Writes a made-up plim's side files (Demo.cursor.json, Demo.keys.json) into the folder,\n"
               "for trying the plan and render commands without recording. Prints the movie path\n"
               "they belong to.\n";
        return 0;
    }
    if (options->positional.size() != 1) {
        err << "plimctl demo: name one folder to write the demo plim into, for example plimctl demo demo.\n";
        return 1;
    }
    auto movie = writeDemoPlim(options->positional.front());
    if (!movie) {
        err << "plimctl demo: " << movie.error().sentence << "\n";
        return 1;
    }
    out << movie->string() << "\n";
    return 0;
}

} // namespace plim
