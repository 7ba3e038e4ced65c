#pragma once

#include "judge/options.h"

namespace tessel::judge {

// Judges, writes the reports and returns the exit status. Errors are printed.
int run_program(const ProgramOptions& options);

}  // namespace tessel::judge
