#pragma once

#include "relay/options.h"

#include <cstdint>

// When the packets of a replay are due: as the capture has them, faster or slower, or at a rate of messages.
// Pure.
namespace tessel::relay {

struct Pacer {
    double speed = 1;
    double rate_first = 0;  // messages a second; 0: as the capture has it
    double rate_last = 0;
    std::int64_t ramp_ns = 0;
    bool begun = false;
    std::int64_t begun_ns = 0;
    std::int64_t first_stamp_ns = 0;
    double elapsed_ns = 0;  // since the beginning, of a rate
};

Pacer make_pacer(const Options& options);

// When the packet with that stamp and number of messages is due; `now_ns` counts for the first only. A ramp
// goes from its first rate to its last in a straight line, and stays there.
std::int64_t next_packet_ns(Pacer& pacer, std::int64_t stamp_ns, unsigned messages, std::int64_t now_ns);

}  // namespace tessel::relay
