#pragma once

#include "certify/options.h"

namespace tessel::certify {

// Does what the command line asks for and returns the exit status. Errors are printed.
int run_program(const Options& options);

}  // namespace tessel::certify
