// tovik-support: saves the product's logs for a support request (see --help).
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "tovik_support/SupportCommand.h"

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    return TovikSupport::SupportCommand::main(arguments, std::cout, std::cerr, ::isatty(STDERR_FILENO) == 1);
}
