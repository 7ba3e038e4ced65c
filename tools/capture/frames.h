#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

// Ethernet frames with IPv4 and UDP or TCP inside, checksums included.
namespace tessel::capture {

using Mac = std::array<unsigned char, 6>;

// The TCP flags that a conversation uses.
constexpr unsigned char tcp_fin = 0x01;
constexpr unsigned char tcp_syn = 0x02;
constexpr unsigned char tcp_push = 0x08;
constexpr unsigned char tcp_ack = 0x10;

constexpr std::size_t udp_payload_max = 65'507;       // of one IPv4 packet
constexpr std::size_t tcp_segment_bytes_max = 1'460;  // of an Ethernet with an MTU of 1500
constexpr std::uint16_t vlan_max = 4094;              // 0: no tag

// One side of an exchange. Addresses and ports in host order.
struct Endpoint {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    Mac mac{};
};

// The Ethernet address to which a multicast group's packets go: 01:00:5e and the group's low 23 bits.
Mac multicast_mac(std::uint32_t group);
bool is_multicast(std::uint32_t address);

// A frame in the making. `bytes` holds the last one that was built; its storage is used again.
struct FrameBuilder {
    std::uint16_t vlan = 0;
    std::uint16_t identification = 0;  // of the next IPv4 packet
    std::vector<unsigned char> bytes;
};

// Builds a frame with one UDP datagram of at most udp_payload_max bytes. The time to live is 1 towards a
// multicast group, as the feed sends it, else 64.
std::span<const unsigned char> build_udp(FrameBuilder& builder, const Endpoint& from, const Endpoint& to,
                                         std::span<const unsigned char> payload);

// Builds a frame with one TCP segment. A segment with tcp_syn says that segments may be as long as
// tcp_segment_bytes_max.
std::span<const unsigned char> build_tcp(FrameBuilder& builder, const Endpoint& from, const Endpoint& to,
                                         std::uint32_t sequence, std::uint32_t acknowledged,
                                         unsigned char flags, std::span<const unsigned char> payload);

}  // namespace tessel::capture
