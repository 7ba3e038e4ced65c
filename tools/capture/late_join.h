#pragma once

#include "capture/wire.h"
#include "snapshot/server.h"
#include "soup/soup_packet.h"

#include <cstdint>
#include <string>

// A receiver that joins late, as a capture shows it: a TCP connection to the Snap-Shot service with
// handshake, login, spin, logout and close.
namespace tessel::capture {

struct LateJoin {
    enum class State : std::uint8_t { waiting, logged_in, logged_out, closed };

    Wire* wire = nullptr;
    std::uint64_t at_ns = 0;  // since the start
    Endpoint client;
    State state = State::waiting;
    SnapshotPeer peer;  // what the service knows of the client
    receiver::SoupReader input;
    bool spin_complete = false;
    std::uint32_t client_sequence = 0;  // of the next byte that each side sends
    std::uint32_t server_sequence = 0;
    std::uint64_t unacknowledged = 0;  // segments of the service since the last acknowledgment
};

// Connects and logs in; the service answers in the pass that follows. The join must stay where it is until it
// is closed.
void begin_join(LateJoin& join, SnapshotServer& server, const std::string& session, std::int64_t now_ms);

// What the client does after a pass: logs out once the spin is complete, closes once the service has.
void step_join(LateJoin& join);

}  // namespace tessel::capture
