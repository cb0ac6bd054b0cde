#include "app/app_runtime.h"
#include "app/startup.h"
#include "ui/ui.h"

#include <iostream>

int main(int argc, char** argv)
{
    plim::AppRuntime::keepPicturesOutOfTheHeap();
    std::vector<std::string> args(argv, argv + argc);
    return plim::plimMain(args, std::cout, std::cerr, plim::runDesktopApp);
}
