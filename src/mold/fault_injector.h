#pragma once

#include <cstdint>

namespace tessel {

// The damage that a test bench asked for. The *_every settings and the burst name packets by number (the
// first non-empty packet of the run is 1); the pending counts run down to 0 and stay there.
struct FaultInjector {
    std::uint32_t drop_every = 0;
    std::uint32_t drop_burst_length = 0;
    std::uint32_t dup_every = 0;
    std::uint32_t reorder_every = 0;
    std::uint32_t pending_drops = 0;
    std::uint32_t pending_dups = 0;
    std::uint32_t pending_reorders = 0;
    std::uint64_t drop_burst_start = 0;
};

enum class FaultDecision { send, send_twice, drop, hold };

// What becomes of one packet; uses up the pending counts that take part. Knows no socket: the publisher acts
// on it.
FaultDecision decide_fault(FaultInjector& faults, std::uint64_t packet_number);

}  // namespace tessel
