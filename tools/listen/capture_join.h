#pragma once

#include "listen/tcp_streams.h"
#include "mold/sequencer.h"
#include "soup/soup_packet.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <vector>

// Where reading a capture begins: with the first packet, with what replies make up for, or with a Snap-Shot.
namespace tessel::listen {

// A packet that waits until it is known where to begin.
struct HeldPacket {
    receiver::PacketSource source = receiver::PacketSource::multicast;
    std::int64_t now_ms = 0;
    std::vector<unsigned char> bytes;
    std::size_t line = 0;
    std::int64_t stamp_ns = 0;  // the capture's time
};

// Packets in their order; the oldest make room for new ones.
struct HeldPackets {
    std::deque<HeldPacket> packets;
    std::size_t bytes = 0;
};

constexpr std::size_t held_bytes_max = std::size_t{64} << 20;

void hold_packet(HeldPackets& held, HeldPacket packet);

// The number to begin with when replies may be among the held packets: that of the first multicast packet of
// the session, or the lowest one from which packets lead up to it without a gap. 0 when there is none.
std::uint64_t first_number(const HeldPackets& held, const std::string& padded_session);

// The Snap-Shot sessions of a capture, as far as they have come.
struct CapturedSession {
    receiver::SoupReader input;
    std::vector<unsigned char> messages;  // each with its length before it, 4 bytes in this machine's order
    std::uint64_t count = 0;
    bool accepted = false;
    bool too_large = false;
};

constexpr std::size_t spin_bytes_max = std::size_t{256} << 20;  // of all sessions; a larger one is not whole
constexpr std::size_t sessions_max = 64;

struct CapturedSessions {
    std::map<PcapFlow, CapturedSession> sessions;
    std::size_t bytes = 0;
};

// Takes bytes that the service sent. True when they complete a session, whose messages are then handed to
// `message` in order; `covered` is the last number that it covers. Nothing is kept after that.
bool add_session_bytes(CapturedSessions& sessions, const PcapFlow& flow, const unsigned char* bytes,
                       std::size_t length,
                       const std::function<void(const unsigned char*, std::size_t)>& message,
                       std::uint64_t& covered);

}  // namespace tessel::listen
