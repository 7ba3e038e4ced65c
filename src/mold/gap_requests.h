#pragma once

#include "mold/sequencer.h"

#include <cstdint>

// The part of the sequencer that requests what is missing: on_timer and next_timer_ms of sequencer.h, and
// what they share with the part that processes packets.
namespace tessel::receiver {

// Delivers what no longer waits for a gap, and passes over gaps in front that are abandoned.
void drain(Sequencer& sequencer);

// Sends a request for `count` messages (1 to 65,535) from `first` on.
void request_range(Sequencer& sequencer, std::uint64_t first, std::uint64_t count);

}  // namespace tessel::receiver
