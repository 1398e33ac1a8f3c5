// rqopt: applies rewrite rules to a request written in the text format (docs/rqopt.md).

#include <iostream>
#include <string>
#include <vector>

#include "Rqopt.h"

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    return RunRqopt(args, std::cin, std::cout, std::cerr);
}
