#include "capture/options.h"
#include "capture/run.h"

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    try {
        tessel::capture::Options options;
        const int end = tessel::capture::parse_options(options, argc, argv);
        return end >= 0 ? end : static_cast<int>(tessel::capture::make_capture(options));
    } catch (const std::exception& error) {
        // Nothing but a lack of memory gets here.
        std::fprintf(stderr, "tessel-capture: %s\n", error.what());
        return static_cast<int>(tessel::capture::ExitStatus::not_written);
    }
}
