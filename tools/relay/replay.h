#pragma once

#include "relay/options.h"

namespace tessel::relay {

// Relays the packets of a capture: on the clock when a line goes to the network, otherwise as fast as they
// can be read. Returns the exit status.
int run_replay(const Options& options);

}  // namespace tessel::relay
