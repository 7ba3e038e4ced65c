#pragma once

#include "certify/case.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// The kinds of extra traffic that a case may have, and their values.
namespace tessel::certify {

enum class TrafficKind : std::uint8_t {
    // Beside the feed: further datagrams to the group. `every` counts the feed's packets.
    foreign_session,  // every, change: a copy with other content under another session and the next numbers
    malformed,        // every, how: cut, count, length, header
    empty,            // every: a datagram of no bytes
    oversize,         // every: the largest datagram, of another session
    noise,            // every, seed: random bytes
    replay,           // every, back: the packet of `back` packets ago once more
    late_heartbeat,   // after, back: one heartbeat with the number of `back` packets ago
    // Between feed and handler.
    delay,         // every, ms: the packet comes that much later
    unknown_type,  // from, to: messages of one category and type get another one, wherever they go
    split,         // packets of one message each
    // In front of the retransmission service.
    retrans_silent,   // requests: that many are not answered; 0: none ever is
    retrans_lossy,    // every: each Nth reply is lost
    retrans_partial,  // messages: what a request gets at most
    retrans_slow,     // ms: replies come that much later
    retrans_twice,    // replies come twice
    retrans_foreign,  // before each reply one of another session, with other content
    // In front of the Snap-Shot service.
    snapshot_slow,    // bytes_a_second
    snapshot_half,    // bytes, times: the first connections end after that many bytes
    snapshot_busy,    // times: the first logins are rejected
    snapshot_closed,  // times: the first connections are closed immediately
    snapshot_pieces,  // bytes: at most that many come in one piece
};

// One [[traffic]] table, with the defaults of what it leaves out.
struct TrafficSettings {
    TrafficKind kind = TrafficKind::empty;
    std::map<std::string, std::uint64_t, std::less<>> numbers;
    std::map<std::string, std::string, std::less<>> texts;
};

// False with a reason in `error` that names the value and what would be right.
bool read_traffic_settings(const Traffic& traffic, TrafficSettings& settings, std::string& error);

// Whether the handler gets its packets, replies or Snap-Shot through it.
bool stands_between(TrafficKind kind);

std::uint64_t number_of(const TrafficSettings& settings, std::string_view name);
const std::string& text_of(const TrafficSettings& settings, std::string_view name);

}  // namespace tessel::certify
