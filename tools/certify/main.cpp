#include "base/standard_descriptors.h"
#include "certify/options.h"
#include "certify/program.h"

#include <exception>

int main(int argc, char** argv) {
    tessel::open_standard_descriptors();
    try {
        tessel::certify::Options options;
        const int end = tessel::certify::parse_options(options, argc, argv);
        return end >= 0 ? end : tessel::certify::run_program(options);
    } catch (const std::exception& failure) {  // no memory
        tessel::certify::print_error(failure.what());
    }
    return tessel::certify::status_bad_input;
}
