#include "listen/capture_join.h"

#include "mold/packet.h"

#include <algorithm>
#include <cstring>

namespace tessel::listen {

using receiver::PacketSource;
using receiver::SoupPacket;

namespace {

constexpr std::size_t header_bytes = 20;
constexpr std::size_t session_bytes = 10;
constexpr std::uint64_t end_of_session_count = 0xffff;
constexpr std::size_t end_of_snapshot_bytes = 37;  // the number that it covers is its last 8 bytes

struct Range {
    std::uint64_t first = 0;
    std::uint64_t end = 0;
};

bool range_of(const HeldPacket& packet, const std::string& session, Range& range) {
    if (packet.bytes.size() < header_bytes ||
        std::memcmp(packet.bytes.data(), session.data(), session_bytes) != 0) {
        return false;
    }
    const std::uint64_t count = read_big_endian(packet.bytes.data() + 18, 2);
    range.first = read_big_endian(packet.bytes.data() + 10, 8);
    range.end = range.first + (count == end_of_session_count ? 0 : count);
    return range.first != 0 && range.end >= range.first;
}

bool is_end_of_snapshot(const SoupPacket& packet) {
    return packet.length == end_of_snapshot_bytes && packet.payload[1] == 'A' && packet.payload[2] == 'S';
}

void keep_message(CapturedSessions& sessions, CapturedSession& session, const SoupPacket& packet) {
    const auto length = static_cast<std::uint32_t>(packet.length);
    if (sessions.bytes + sizeof length + length > spin_bytes_max) {
        session.too_large = true;
        return;
    }
    unsigned char prefix[sizeof length];
    std::memcpy(prefix, &length, sizeof length);
    session.messages.insert(session.messages.end(), prefix, prefix + sizeof length);
    session.messages.insert(session.messages.end(), packet.payload, packet.payload + length);
    sessions.bytes += sizeof length + length;
    ++session.count;
}

void hand_out(const CapturedSession& session,
              const std::function<void(const unsigned char*, std::size_t)>& message) {
    std::size_t at = 0;
    for (std::uint64_t done = 0; done < session.count; ++done) {
        std::uint32_t length = 0;
        std::memcpy(&length, session.messages.data() + at, sizeof length);
        message(session.messages.data() + at + sizeof length, length);
        at += sizeof length + length;
    }
}

}  // namespace

void hold_packet(HeldPackets& held, HeldPacket packet) {
    held.bytes += packet.bytes.size();
    held.packets.push_back(std::move(packet));
    while (held.bytes > held_bytes_max) {
        held.bytes -= held.packets.front().bytes.size();
        held.packets.pop_front();
    }
}

std::uint64_t first_number(const HeldPackets& held, const std::string& padded_session) {
    std::vector<Range> ranges;
    std::uint64_t first = 0;
    for (const HeldPacket& packet : held.packets) {
        Range range;
        if (!range_of(packet, padded_session, range)) {
            continue;
        }
        ranges.push_back(range);
        if (first == 0 && packet.source == PacketSource::multicast) {
            first = range.first;
        }
    }
    if (first == 0) {
        return 0;
    }
    // From the highest down, so that each packet can extend what those above it have reached.
    std::sort(ranges.begin(), ranges.end(),
              [](const Range& left, const Range& right) { return left.end > right.end; });
    for (const Range& range : ranges) {
        if (range.end >= first && range.first < first) {
            first = range.first;
        }
    }
    return first;
}

bool add_session_bytes(CapturedSessions& sessions, const PcapFlow& flow, const unsigned char* bytes,
                       std::size_t length,
                       const std::function<void(const unsigned char*, std::size_t)>& message,
                       std::uint64_t& covered) {
    if (sessions.sessions.find(flow) == sessions.sessions.end() && sessions.sessions.size() == sessions_max) {
        sessions.bytes -= sessions.sessions.begin()->second.messages.size();
        sessions.sessions.erase(sessions.sessions.begin());
    }
    CapturedSession& session = sessions.sessions[flow];
    soup_append(session.input, bytes, length);
    SoupPacket packet;
    bool broken = false;
    while (soup_next(session.input, packet, &broken)) {
        if (packet.type == soup_login_accepted) {
            sessions.bytes -= session.messages.size();
            session.messages.clear();
            session.count = 0;
            session.accepted = true;
            session.too_large = false;
        } else if (packet.type == soup_sequenced_data && session.accepted) {
            keep_message(sessions, session, packet);
            if (is_end_of_snapshot(packet) && !session.too_large) {
                covered = read_big_endian(packet.payload + end_of_snapshot_bytes - 8, 8);
                hand_out(session, message);
                sessions = {};
                return true;
            }
        }
    }
    return false;
}

}  // namespace tessel::listen
