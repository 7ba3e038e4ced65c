#pragma once

#include "relay/options.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A socket that packets leave through, many with one call.
namespace tessel::relay {

constexpr std::size_t batch_packets_max = 64;
constexpr std::size_t packet_bytes_max = 65'536;

// How far from their time packets left, for the summary.
struct TimingCounters {
    std::uint64_t within_10_us = 0;
    std::uint64_t within_100_us = 0;
    std::uint64_t within_1_ms = 0;
    std::uint64_t packets = 0;
};

struct UdpOutput {
    int fd = -1;
    std::uint64_t failed = 0;  // packets that the system refused
    std::size_t count = 0;     // packets in the batch
    // Packets of a batch are copied here back to back, so that a line's own buffers may go.
    std::vector<unsigned char> bytes;
    std::size_t used = 0;
    iovec parts[batch_packets_max]{};
    mmsghdr messages[batch_packets_max]{};
};

// False with the failing call in `error`.
bool open_output(UdpOutput& output, const LineOptions& line, std::string& error);

// Adds a packet to the batch; sends the batch when it is full.
void add_packet(UdpOutput& output, const unsigned char* bytes, std::size_t length);

// Sends what is in the batch.
void flush_output(UdpOutput& output);

}  // namespace tessel::relay
