#pragma once

#include "certify/options.h"

namespace tessel::certify {

// Reads the files of --merge, adds them up, writes the reports and returns the exit status: as of one run,
// and 1 when a job or a result is missing.
int run_merge(const Options& options);

}  // namespace tessel::certify
