#include "app/ctl_demo.h"

#include "app/demo_plim.h"

#include <ostream>

namespace plim {

int runDemoCommand(const CtlArgs& args, std::ostream& out, std::ostream& err)
{
    auto options = parseCtlOptions(args, {"--width"}, {"--silent"}, "demo");
    if (!options) {
        err << options.error().sentence << "\n";
        return 1;
    }
    if (options->help) {
        out << "usage: plimctl demo <folder> [--width PIXELS] [--silent]\n\n"
               "Writes the demo plim into the folder: Demo.mov, 20 s of a made-up desktop at 60 fps with\n"
               "speech (espeak-ng), and its Demo.cursor.json and Demo.keys.json, for trying the plan and\n"
               "render commands without recording. Prints the movie's path.\n\n"
               "  --width PIXELS  picture width (default 2560; the height is 10/16 of it)\n"
               "  --silent        no speech\n";
        return 0;
    }
    if (options->positional.size() != 1) {
        err << "plimctl demo: name one folder to write the demo plim into, for example plimctl demo demo.\n";
        return 1;
    }
    DemoOptions demo;
    if (auto width = options->last("--width")) {
        char* end = nullptr;
        long value = std::strtol(width->c_str(), &end, 10);
        if (width->empty() || *end || value < 64 || value > 7680) {
            err << "plimctl demo: \"" << *width << "\" is not a width for the demo. Give --width a number of "
                   "pixels from 64 to 7680, such as 640.\n";
            return 1;
        }
        demo.width = static_cast<int>(value) / 2 * 2;
        demo.height = static_cast<int>(value * 10 / 16) / 2 * 2;
    }
    demo.sound = !options->has("--silent");
    auto movie = writeDemoPlim(options->positional.front(), demo);
    if (!movie) {
        err << "plimctl demo: " << movie.error().sentence << "\n";
        return 1;
    }
    out << movie->string() << "\n";
    return 0;
}

} // namespace plim
