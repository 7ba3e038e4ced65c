#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

// Puts IPv4 packets together that travel in fragments. Memory is bounded whatever comes in.
namespace tessel::listen {

// What the fragments of one packet have in common. Addresses in host order.
struct FragmentKey {
    std::uint32_t source = 0;
    std::uint32_t destination = 0;
    std::uint16_t identification = 0;
    unsigned char protocol = 0;

    auto operator<=>(const FragmentKey&) const = default;
};

struct FragmentedPacket {
    std::vector<unsigned char> body;                           // as far as known
    std::vector<std::pair<std::size_t, std::size_t>> present;  // [begin, end) of what has come, in order
    std::size_t total = 0;                                     // length of the body; 0: the end is not known
    std::int64_t first_ns = 0;
};

constexpr std::size_t fragmented_packets_max = 256;  // of 64 KiB each at most
constexpr std::int64_t fragment_wait_ns = std::int64_t{30} * 1'000'000'000;

struct FragmentTable {
    std::map<FragmentKey, FragmentedPacket> packets;
    std::uint64_t never_completed = 0;  // abandoned: too old, or too many others since
};

// Takes one fragment: `offset` bytes into the packet's body, with `more` when others follow it. Returns the
// whole body once it is complete, else an empty vector. A fragment that cannot belong to a packet (an empty
// one, one beyond 65,535 bytes) is ignored.
std::vector<unsigned char> add_fragment(FragmentTable& table, const FragmentKey& key, std::int64_t time_ns,
                                        std::size_t offset, bool more, const unsigned char* bytes,
                                        std::size_t length);

// At the end of a capture: counts what is still waiting.
void abandon_fragments(FragmentTable& table);

}  // namespace tessel::listen
