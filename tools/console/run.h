#pragma once

#include "console/options.h"

namespace tessel::console {

// Serves until a signal asks for the end. Returns the exit status: 0, or 1 when a socket or file failed.
int run_console(const Options& options);

}  // namespace tessel::console
