#include "base/standard_descriptors.h"
#include "judge/options.h"
#include "judge/program.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

int main(int argc, char** argv) {
    using namespace tessel::judge;
    tessel::open_standard_descriptors();
    std::signal(SIGPIPE, SIG_IGN);  // a reader that is gone is an error to report, not the end
    try {
        ProgramOptions options;
        const int status = parse_options(options, argc, argv);
        return status >= 0 ? status : run_program(options);
    } catch (const std::exception& fault) {  // no memory
        print_error(fault.what());
        return status_bad_input;
    }
}
