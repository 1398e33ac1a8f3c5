// rqopt: applies rewrite rules to a request written in the text format (docs/rqopt.md).

#include <fcntl.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "Rqopt.h"

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    // A closed standard input reads as empty; marking the stream lets the tool say that it
    // could not be read rather than complain that the request is missing.
    if (fcntl(STDIN_FILENO, F_GETFD) == -1)
        std::cin.setstate(std::ios::badbit);
    return RunRqopt(args, std::cin, std::cout, std::cerr);
}
