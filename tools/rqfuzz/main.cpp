// rqfuzz: generated requests checked rule by rule on SQLite (docs/fuzzing.md).

#include <iostream>
#include <string>
#include <vector>

#include "Fuzz.h"

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    return RunRqfuzz(args, std::cout, std::cerr);
}
