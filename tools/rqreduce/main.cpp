// rqreduce: shrinks a failing request while its failure persists (docs/fuzzing.md).

#include <iostream>
#include <string>
#include <vector>

#include "Fuzz.h"

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    return RunRqreduce(args, std::cout, std::cerr);
}
