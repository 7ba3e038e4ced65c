#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

// Notices that a publisher was started again under the same session: its numbers begin at 1 once more, and
// the numbers that were received before come with other bytes.
//
// Pure, as the sequencer that it serves: no socket and no clock.
namespace tessel::receiver {

// Messages whose bytes are remembered, the latest ones. A packet that is late or repeated by the network is
// never this far back; a power of two.
constexpr std::uint64_t remembered_messages = 65'536;

// Number 1 more than this far below the next number begins a new run without further proof.
constexpr std::uint64_t restart_distance_min = 1024;

struct RestartDetector {
    std::vector<std::uint32_t> fingerprints;  // by number modulo remembered_messages; 0: not received
    std::uint64_t origin = 0;                 // the number that reception began with
};

// What one line has shown so far.
struct RestartSigns {
    // The line was received at or above `origin`. Before that, packets below it only show that reception
    // began ahead of the stream, as after a Snap-Shot.
    bool reached = false;
    std::uint64_t suspect_first = 0;  // the last packet of unknown numbers below the next one, [first, end);
    std::uint64_t suspect_end = 0;    // 0: none
    bool heartbeat_fell = false;      // the last packet was a heartbeat below a known number
};

// Forgets everything; reception begins with number `origin`.
void reset_detector(RestartDetector& detector, std::uint64_t origin);

// Of the first 16 bytes, in which every message of the feed has the time it was built. Never 0.
inline std::uint32_t fingerprint_message(const unsigned char* bytes, std::size_t length) {
    std::uint64_t words[2] = {0, 0};
    if (length >= sizeof words) [[likely]] {
        std::memcpy(words, bytes, sizeof words);
    } else if (length != 0) {
        std::memcpy(words, bytes, length);
    }
    const std::uint64_t mixed = ((words[0] ^ length) * 0x9e3779b97f4a7c15u ^ words[1]) * 0xbf58476d1ce4e5b9u;
    return static_cast<std::uint32_t>(mixed >> 32) | 1u;
}

inline void remember_message(RestartDetector& detector, std::uint64_t sequence, const unsigned char* bytes,
                             std::size_t length) {
    detector.fingerprints[sequence % remembered_messages] = fingerprint_message(bytes, length);
}

// The numbers were abandoned: what comes for them later is not compared.
void forget_messages(RestartDetector& detector, std::uint64_t first, std::uint64_t count);

// A packet's messages below `next`, the number that is to be delivered next.
enum class PacketMemory : std::uint8_t {
    same,       // received before, or lost within the memory
    different,  // at least one has other bytes than the message received under its number
    unknown     // none can be compared: older than the memory, or from before reception began
};

// Compares a well-formed packet (header of 20 bytes, then blocks) that begins with number `first` and holds
// the numbers below `end`.
PacketMemory compare_packet(const RestartDetector& detector, const unsigned char* packet, std::uint64_t first,
                            std::uint64_t end, std::uint64_t next);

// A multicast packet with messages that begins below `next`, on the line whose signs these are: the first
// number received of the new run that it proves, 0 when it proves none. A single packet of unknown numbers
// may be one that was late before reception began; two in succession, or number 1 far below, are not.
std::uint64_t find_restart(const RestartDetector& detector, RestartSigns& signs, const unsigned char* packet,
                           std::uint64_t first, std::uint64_t end, std::uint64_t next);

// A multicast heartbeat whose number is below `highest`, one past the highest number known to exist: true at
// the second one in succession.
bool heartbeat_proves_restart(RestartSigns& signs);

}  // namespace tessel::receiver
