#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

// MoldUDP64 packets taken apart and put together again.
namespace tessel::relay {

struct PacketHead {
    std::uint64_t first = 0;
    unsigned messages = 0;  // 0 for a heartbeat and for the end of the session
    bool end_of_session = false;
};

// Reads a packet's header. False when the bytes are too few for one.
bool read_head(const unsigned char* bytes, std::size_t length, PacketHead& head);

// Calls `take` for the packet in parts of at most `payload_bytes_max` bytes, each with the right number and
// count. A packet that is small enough, is no whole packet or holds a message that fits no part goes as it
// is; 0 is no limit.
void for_each_part(const unsigned char* bytes, std::size_t length, std::size_t payload_bytes_max,
                   const std::function<void(const unsigned char*, std::size_t)>& take);

}  // namespace tessel::relay
