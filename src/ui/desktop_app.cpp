#include "ui/ui.h"

#include <QApplication>
#include <QLabel>

#include <cstdlib>
#include <iostream>

namespace plim {

int runDesktopApp(const std::vector<std::string>& argv)
{
    auto set = [](const char* name) { const char* v = std::getenv(name); return v && *v; };
    if (!set("DISPLAY") && !set("WAYLAND_DISPLAY")) {
        std::cerr << "Plim could not open its windows because this session has no display (neither DISPLAY "
                     "nor WAYLAND_DISPLAY is set). Nothing was recorded or changed. Start Plim from your "
                     "desktop, or render headless with plim --stage <movie>.\n";
        return 1;
    }
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    int argc = int(args.size());
    QApplication app(argc, args.data());
    QLabel home("Plim");
    home.show();
    return app.exec();
}

} // namespace plim
