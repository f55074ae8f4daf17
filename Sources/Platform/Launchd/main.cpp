// /bin/launchctl on Linux hosts (see Launchctl.h).
#include <iostream>
#include <string>
#include <vector>

#include "Launchd/Launchctl.h"

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
    return Launchd::launchctl(args, Launchd::runSystemctl, std::cout, std::cerr);
}
