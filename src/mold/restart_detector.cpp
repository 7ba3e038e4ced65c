#include "mold/restart_detector.h"

#include "mold/packet.h"

#include <algorithm>

namespace tessel::receiver {

void reset_detector(RestartDetector& detector, std::uint64_t origin) {
    detector = RestartDetector{};
    detector.fingerprints.assign(remembered_messages, 0);
    detector.origin = origin;
}

void forget_messages(RestartDetector& detector, std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t at = 0; at < std::min(count, remembered_messages); ++at) {
        detector.fingerprints[(first + at) % remembered_messages] = 0;
    }
}

PacketMemory compare_packet(const RestartDetector& detector, const unsigned char* packet, std::uint64_t first,
                            std::uint64_t end, std::uint64_t next) {
    PacketMemory memory = PacketMemory::unknown;
    const unsigned char* block = packet + mold_header_bytes;
    for (std::uint64_t sequence = first; sequence < std::min(end, next); ++sequence) {
        const std::size_t length = read_big_endian(block, block_prefix_bytes);
        const unsigned char* message = block + block_prefix_bytes;
        block = message + length;
        if (sequence < detector.origin || next - sequence > remembered_messages) {
            continue;
        }
        const std::uint32_t known = detector.fingerprints[sequence % remembered_messages];
        if (known != 0 && known != fingerprint_message(message, length)) {
            return PacketMemory::different;
        }
        memory = PacketMemory::same;
    }
    return memory;
}

std::uint64_t find_restart(const RestartDetector& detector, RestartSigns& signs, const unsigned char* packet,
                           std::uint64_t first, std::uint64_t end, std::uint64_t next) {
    const std::uint64_t suspect_first = signs.suspect_first;
    const std::uint64_t suspect_end = signs.suspect_end;
    signs.suspect_end = 0;
    if (!signs.reached) {
        return 0;
    }
    switch (compare_packet(detector, packet, first, end, next)) {
        case PacketMemory::same: return 0;
        case PacketMemory::different: return suspect_end == first ? suspect_first : first;
        case PacketMemory::unknown: break;
    }
    if (suspect_end == first) {
        return suspect_first;
    }
    if (first == 1 && next - first > restart_distance_min) {
        return first;
    }
    signs.suspect_first = first;
    signs.suspect_end = end;
    return 0;
}

bool heartbeat_proves_restart(RestartSigns& signs) {
    const bool second = signs.heartbeat_fell;
    signs.heartbeat_fell = true;
    return second;
}

}  // namespace tessel::receiver
