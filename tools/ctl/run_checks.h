#pragma once

#include "ctl/run_config.h"

#include <string>
#include <vector>

namespace tessel::ctl {

// Holds a run against this host, before anything is started: the interface's address is one of it, the
// retransmission, control and Snap-Shot ports are free, each output can be written, is a regular file and is
// written by one kind of output only, and no argument is longer than the kernel takes. Every finding is one
// line in `faults`.
void check_host(const RunConfig& config, std::vector<std::string>& faults);

}  // namespace tessel::ctl
