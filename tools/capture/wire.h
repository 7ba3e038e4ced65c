#pragma once

#include "base/clock.h"
#include "capture/capture_file.h"
#include "capture/frames.h"

#include <cstdint>
#include <span>

namespace tessel::capture {

// The network of a capture: who takes part, and where each packet is recorded.
struct Wire {
    FrameBuilder builder;
    CaptureFile file;
    const Clock* clock = nullptr;  // simulated; frames are stamped with it and do not move it
    Endpoint feed;                 // where the multicast packets come from
    Endpoint group;
    Endpoint retransmission;  // the two services
    Endpoint snapshot;
    Endpoint client;  // the receiver that asks and joins; its port is that of the requests
};

inline void record_udp(Wire& wire, const Endpoint& from, const Endpoint& to,
                       std::span<const unsigned char> payload) {
    write_frame(wire.file, wire.clock->simulated_wall_ns, build_udp(wire.builder, from, to, payload));
}

}  // namespace tessel::capture
