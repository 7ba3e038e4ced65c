#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What a line does to its packets, as the user writes it: KEY=VALUE.
//
//   drop=1%            random loss
//   burst=0.5%:20%     bursty loss: for each packet, from good to bad with the first chance and back with the
//                      second; every packet in the bad state is lost
//   every=100          every 100th packet is lost
//   seq=500-510+900-900  packets that hold one of these sequence numbers are lost
//   dup=1%             a second copy directly after the first
//   reorder=1%:3       sent after the third later packet
//   delay=200us..2ms   also 5ms, normal:5ms:1ms, spike:1%:50ms; several add up
//   rate=100Mbit       of UDP payload, with queue=1000 packets waiting at most
//   bits=0.1%          one bit of the packet is flipped
//   truncate=0.1%      the packet is cut short
//   foreign=1%         a packet of another session is added
//   dark=10s..12s      nothing passes in that time, counted from the line's first packet
//   payload=1400       packets are split so that none has more bytes of UDP payload
namespace tessel::relay {

enum class DelayKind : std::uint8_t { fixed, uniform, normal, spike };

struct Delay {
    DelayKind kind = DelayKind::fixed;
    std::int64_t first_ns = 0;   // fixed: the delay; uniform: the lowest; normal: the mean; spike: the delay
    std::int64_t second_ns = 0;  // uniform: the highest; normal: the standard deviation
    double chance = 0;           // spike: of a packet, 0 to 1
};

constexpr std::size_t queue_packets_default = 1000;

// Chances are from 0 to 1.
struct Impairments {
    double drop = 0;
    double burst_begin = 0;
    double burst_end = 1;
    std::uint64_t every = 0;                                         // 0: off
    std::vector<std::pair<std::uint64_t, std::uint64_t>> sequences;  // both ends included
    double duplicate = 0;
    double reorder = 0;
    unsigned reorder_distance = 1;
    std::vector<Delay> delays;
    double rate_bits = 0;  // a second; 0: no limit
    std::size_t queue_packets = queue_packets_default;
    double flip_bit = 0;
    double truncate = 0;
    double foreign = 0;
    std::int64_t dark_begin_ns = 0;  // dark while the end is later
    std::int64_t dark_end_ns = 0;
    std::size_t payload_bytes_max = 0;  // 0: packets stay as they are
};

// Sets what "KEY=VALUE" names. False with the reason in `error`, and nothing changed, when the key is unknown
// or the value is wrong. A delay is added to those set so far when `add_delay`, otherwise it replaces them.
bool set_impairment(Impairments& impairments, std::string_view assignment, bool add_delay,
                    std::string& error);

// True when every packet passes unchanged and immediately.
bool is_clean(const Impairments& impairments);

}  // namespace tessel::relay
