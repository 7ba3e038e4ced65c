#include "ctl/options.h"

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    try {
        return tessel::ctl::run_command_line(argc, argv);
    } catch (const std::exception& fault) {  // no memory
        std::fprintf(stderr, "tesselctl: %s\n", fault.what());
        return 2;
    }
}
