#include "capture/frames.h"

#include "mold/packet.h"

#include <cassert>
#include <cstring>

namespace tessel::capture {

namespace {

constexpr std::size_t mac_bytes = 6;
constexpr std::size_t ip_header_bytes = 20;
constexpr std::size_t udp_header_bytes = 8;
constexpr std::size_t tcp_header_bytes = 20;
constexpr std::size_t tcp_mss_option_bytes = 4;
constexpr std::uint16_t ether_type_ipv4 = 0x0800;
constexpr std::uint16_t ether_type_vlan = 0x8100;
constexpr unsigned char protocol_tcp = 6;
constexpr unsigned char protocol_udp = 17;
constexpr unsigned char unicast_time_to_live = 64;
constexpr std::uint16_t tcp_window = 65'535;

// The ones' complement sum of big-endian 16-bit words, not yet folded; an odd last byte is the high half of a
// word. Words of eight bytes are summed in the machine's order, which only swaps the halves of the result.
std::uint64_t sum_words(const unsigned char* bytes, std::size_t length) {
    std::uint64_t sum = 0;
    for (; length >= 4; bytes += 4, length -= 4) {
        std::uint32_t word = 0;
        std::memcpy(&word, bytes, 4);
        sum += word;
    }
    std::uint32_t rest = 0;
    std::memcpy(&rest, bytes, length);
    sum += rest;
    unsigned char halves[2];
    while (sum >> 16 != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    const auto folded = static_cast<std::uint16_t>(sum);
    std::memcpy(halves, &folded, 2);
    return std::uint64_t{halves[0]} << 8 | halves[1];
}

std::uint16_t finish_checksum(std::uint64_t sum) {
    while (sum >> 16 != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<std::uint16_t>(~sum);
}

void put(unsigned char* out, std::uint64_t value, std::size_t width) {
    write_big_endian(out, value, width);
}

// Lays down Ethernet and IPv4 headers and returns where the IPv4 packet's body begins.
unsigned char* begin_frame(FrameBuilder& builder, const Endpoint& from, const Endpoint& to,
                           unsigned char protocol, std::size_t body_bytes) {
    const std::size_t ether_bytes = 2 * mac_bytes + (builder.vlan != 0 ? 4u : 0u) + 2;
    const std::size_t packet_bytes = ip_header_bytes + body_bytes;
    assert(packet_bytes <= UINT16_MAX);
    builder.bytes.resize(ether_bytes + packet_bytes);
    unsigned char* at = builder.bytes.data();
    std::memcpy(at, to.mac.data(), mac_bytes);
    std::memcpy(at + mac_bytes, from.mac.data(), mac_bytes);
    at += 2 * mac_bytes;
    if (builder.vlan != 0) {
        put(at, ether_type_vlan, 2);
        put(at + 2, builder.vlan, 2);
        at += 4;
    }
    put(at, ether_type_ipv4, 2);
    at += 2;
    put(at, 0x45, 1);  // version 4, five words of header
    put(at + 1, 0, 1);
    put(at + 2, packet_bytes, 2);
    put(at + 4, builder.identification++, 2);
    put(at + 6, 0x4000, 2);  // not to be fragmented
    put(at + 8, is_multicast(to.address) ? 1 : unicast_time_to_live, 1);
    put(at + 9, protocol, 1);
    put(at + 10, 0, 2);
    put(at + 12, from.address, 4);
    put(at + 16, to.address, 4);
    put(at + 10, finish_checksum(sum_words(at, ip_header_bytes)), 2);
    return at + ip_header_bytes;
}

// The checksum of a UDP or TCP body, whose own checksum field is 0.
std::uint16_t body_checksum(const Endpoint& from, const Endpoint& to, unsigned char protocol,
                            const unsigned char* body, std::size_t length) {
    std::uint64_t sum = sum_words(body, length) + protocol + length;
    for (const std::uint32_t address : {from.address, to.address}) {
        sum += (address >> 16) + (address & 0xffff);
    }
    return finish_checksum(sum);
}

}  // namespace

bool is_multicast(std::uint32_t address) {
    return address >> 28 == 0xe;
}

Mac multicast_mac(std::uint32_t group) {
    Mac mac{0x01, 0x00, 0x5e};
    put(mac.data() + 3, group & 0x7fffff, 3);
    return mac;
}

std::span<const unsigned char> build_udp(FrameBuilder& builder, const Endpoint& from, const Endpoint& to,
                                         std::span<const unsigned char> payload) {
    assert(payload.size() <= udp_payload_max);
    const std::size_t length = udp_header_bytes + payload.size();
    unsigned char* const body = begin_frame(builder, from, to, protocol_udp, length);
    put(body, from.port, 2);
    put(body + 2, to.port, 2);
    put(body + 4, length, 2);
    put(body + 6, 0, 2);
    if (!payload.empty()) {
        std::memcpy(body + udp_header_bytes, payload.data(), payload.size());
    }
    const std::uint16_t checksum = body_checksum(from, to, protocol_udp, body, length);
    put(body + 6, checksum == 0 ? 0xffff : checksum, 2);  // 0 would say that there is none
    return builder.bytes;
}

std::span<const unsigned char> build_tcp(FrameBuilder& builder, const Endpoint& from, const Endpoint& to,
                                         std::uint32_t sequence, std::uint32_t acknowledged,
                                         unsigned char flags, std::span<const unsigned char> payload) {
    assert(payload.size() <= tcp_segment_bytes_max);
    const std::size_t option_bytes = (flags & tcp_syn) != 0 ? tcp_mss_option_bytes : 0;
    const std::size_t header_bytes = tcp_header_bytes + option_bytes;
    const std::size_t length = header_bytes + payload.size();
    unsigned char* const body = begin_frame(builder, from, to, protocol_tcp, length);
    put(body, from.port, 2);
    put(body + 2, to.port, 2);
    put(body + 4, sequence, 4);
    put(body + 8, acknowledged, 4);
    put(body + 12, header_bytes / 4 << 4, 1);
    put(body + 13, flags, 1);
    put(body + 14, tcp_window, 2);
    put(body + 16, 0, 4);  // checksum, urgent pointer
    if (option_bytes != 0) {
        put(body + 20, 0x0204, 2);  // maximum segment size
        put(body + 22, tcp_segment_bytes_max, 2);
    }
    if (!payload.empty()) {
        std::memcpy(body + header_bytes, payload.data(), payload.size());
    }
    put(body + 16, body_checksum(from, to, protocol_tcp, body, length), 2);
    return builder.bytes;
}

}  // namespace tessel::capture
