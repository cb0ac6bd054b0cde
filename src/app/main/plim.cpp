#include "app/startup.h"

#include <iostream>

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv, argv + argc);
    return plim::plimMain(args, std::cout, std::cerr);
}
