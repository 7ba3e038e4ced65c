#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

// Puts the bytes of TCP connections in order, each byte once. Memory is bounded whatever comes in.
namespace tessel::listen {

// Where a datagram or a piece of a TCP stream came from and went to. Addresses and ports in host order.
struct PcapFlow {
    std::uint32_t source = 0;
    std::uint32_t destination = 0;
    std::uint16_t source_port = 0;
    std::uint16_t destination_port = 0;

    auto operator<=>(const PcapFlow&) const = default;
};

// One direction of a connection.
struct TcpStream {
    std::uint32_t next = 0;                                       // the sequence number of the next byte
    std::map<std::uint64_t, std::vector<unsigned char>> pending;  // by distance from the first byte
    std::uint64_t position = 0;                                   // bytes handed out
};

constexpr std::size_t tcp_pending_bytes_max = std::size_t{64} << 20;  // of all streams, after a gap
constexpr std::size_t tcp_streams_max = 4096;

struct TcpStreams {
    std::map<PcapFlow, TcpStream> streams;
    std::size_t pending_bytes = 0;
};

using TcpSink = std::function<void(const PcapFlow&, const unsigned char*, std::size_t)>;

// Takes a segment, its header included, and calls `sink` for the bytes that are in order now. A connection
// whose beginning was not seen is passed over, as is what exceeds the limits. False when the bytes are no TCP
// segment.
bool add_segment(TcpStreams& streams, const PcapFlow& flow, const unsigned char* segment, std::size_t length,
                 const TcpSink& sink);

}  // namespace tessel::listen
