#include "base/standard_descriptors.h"
#include "console/options.h"
#include "console/report.h"
#include "console/run.h"

#include <csignal>
#include <exception>

int main(int argc, char** argv) {
    tessel::open_standard_descriptors();
    std::signal(SIGPIPE, SIG_IGN);
    try {
        tessel::console::Options options;
        const int end = tessel::console::parse_options(options, argc, argv);
        return end >= 0 ? end : tessel::console::run_console(options);
    } catch (const std::exception& failure) {
        tessel::console::report(failure.what());
    }
    return 1;
}
