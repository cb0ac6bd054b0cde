#include "app/app_runtime.h"
#include "app/plimctl.h"

#include <iostream>

int main(int argc, char** argv)
{
    plim::AppRuntime::keepPicturesOutOfTheHeap();
    std::vector<std::string> args(argv, argv + argc);
    return plim::plimctlMain(args, std::cout, std::cerr);
}
