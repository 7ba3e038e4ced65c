#include "ctl/options.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

int main(int argc, char** argv) {
    try {
        const int status = tessel::ctl::run_command_line(argc, argv);
        if (std::fflush(stdout) != 0) {
            std::fprintf(stderr, "tesselctl: standard output: %s\n", std::strerror(errno));
            return 2;
        }
        return status;
    } catch (const std::exception& fault) {  // no memory
        std::fprintf(stderr, "tesselctl: %s\n", fault.what());
        return 2;
    }
}
