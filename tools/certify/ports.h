#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Ports and groups that nobody else of this machine takes who asks here: cases run side by side.
namespace tessel::certify {

// What is taken. Each is held by a socket in the abstract namespace that is bound to a name made of it; one
// process can bind that, and the system takes it back when the process ends.
struct Leases {
    std::vector<int> sockets;
};

// A port that is free for TCP and UDP alike; 0 when there is none.
std::uint16_t lease_port(Leases& leases);

// A multicast group of the private range that has no member; empty when there is none.
std::string lease_group(Leases& leases);

void release(Leases& leases);

}  // namespace tessel::certify
