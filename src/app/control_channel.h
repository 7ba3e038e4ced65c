#pragma once

#include "engine/sip_engine.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace tessel {

constexpr std::size_t control_line_bytes_max = 511;  // of a datagram; what is longer is cut

// What the commands act on. The engine leads to the publisher and its faults, to the scenario and to the
// truth log.
struct ControlContext {
    SipEngine* engine = nullptr;
    std::int32_t* interval_ms = nullptr;  // the loop's tick interval
};

struct ControlReply {
    std::string text;   // for the sender, line feed included (but not after "ok stopping")
    bool stop = false;  // the process is to end once the reply is sent
};

// Runs one datagram's command and returns the reply. Any bytes are accepted; those after
// control_line_bytes_max or the first NUL are ignored.
ControlReply handle_command(const ControlContext& context, const char* bytes, std::size_t length);

// Opens the channel on 127.0.0.1 and prints which commands it accepts; returns the socket. When the port
// cannot be bound: -1, and the system's reason on standard error.
int open_control_channel(std::uint16_t port);

// Runs every waiting command, each with its reply, until there is no more or an empty datagram came. False
// after the command "stop": its reply is sent, and the process is to end before anything else happens.
bool serve_control_channel(int fd, const ControlContext& context);

}  // namespace tessel
