#pragma once

#include "base/random.h"
#include "certify/traffic_kinds.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string_view>
#include <vector>

// What is sent to the handler's group for each packet of the feed: the packet itself when the traffic stands
// between, and what the case adds. Pure: no socket and no clock.
namespace tessel::certify {

using Packet = std::vector<unsigned char>;

constexpr std::size_t datagram_bytes_max = 65'507;  // UDP over IPv4

// The packet under another session, with the numbers that come next, its messages those of another market
// center. Of a heartbeat one whose number is 1,000 above. `last`: only the session's last character differs.
Packet foreign_copy(const Packet& packet, bool last);

// A packet that is none, of the packet's session: "cut" ends inside its first message and has the next
// numbers, "count" promises 100 messages more than there are, "length" has a first message of 65,535 bytes
// and the next numbers, "header" ends after `turn` % 19 + 1 bytes.
Packet malformed_copy(const Packet& packet, std::string_view how, std::uint64_t turn);

// Gives messages of one category and type another one. Returns how many there were.
std::size_t replace_types(Packet& packet, std::string_view from, std::string_view to);

// The packet's messages in packets of one message; a heartbeat stays as it is.
std::vector<Packet> split_packet(const Packet& packet);

// Whether it is a whole packet: header, then as many messages as it says.
bool is_whole_packet(const Packet& packet);

struct OutgoingPacket {
    std::int64_t delay_ns = 0;
    Packet bytes;
};

struct GroupTraffic {
    std::vector<TrafficSettings> settings;
    bool forwards = false;
    Random random;
    std::uint64_t packets = 0;  // of the feed, with messages
    std::deque<Packet> recent;  // the latest ones
    std::size_t recent_max = 0;
    std::uint64_t added = 0;
    std::uint64_t changed = 0;
};

GroupTraffic make_group_traffic(const std::vector<TrafficSettings>& settings, bool forwards);

// Appends what is to be sent, in this order, for a packet of the feed.
void on_feed_packet(GroupTraffic& traffic, const unsigned char* bytes, std::size_t length,
                    std::vector<OutgoingPacket>& out);

}  // namespace tessel::certify
