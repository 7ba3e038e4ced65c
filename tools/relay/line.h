#pragma once

#include "base/random.h"
#include "relay/impairments.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// One output of the relay: what becomes of each packet, decided from the line's settings, its generator and
// the time that is handed in. Pure: no socket and no clock.
namespace tessel::relay {

struct LineCounters {
    std::uint64_t received = 0;  // packets offered, heartbeats included
    std::uint64_t sent = 0;      // packets handed out, heartbeats and copies included
    std::uint64_t dropped = 0;   // by drop, burst, every, seq and dark
    std::uint64_t duplicated = 0;
    std::uint64_t reordered = 0;
    std::uint64_t corrupted = 0;
    std::uint64_t truncated = 0;
    std::uint64_t foreign = 0;
    std::uint64_t queue_drops = 0;
};

// A packet on its way. `first` is its sequence number; `messages` is 0 for a heartbeat.
struct WaitingPacket {
    std::vector<unsigned char> bytes;
    std::uint64_t first = 0;
    unsigned messages = 0;
};

struct HeldPacket {
    WaitingPacket packet;
    std::int64_t delay_ns = 0;
    unsigned later_packets = 0;  // that still have to go before it
};

struct LineSinks {
    // A packet to be sent, with the time it is due. The bytes last until the function returns.
    std::function<void(std::int64_t due_ns, const unsigned char* bytes, std::size_t length)> send;
    // What was done to a packet: "dropped", "duplicated", "reordered", "corrupted", "truncated", "foreign",
    // "dark" or "queue full"; `detail` is empty or more words.
    std::function<void(std::string_view kind, std::uint64_t first, const std::string& detail)> fault;
};

struct Line {
    std::string name;
    Impairments impairments;
    Random random;
    LineCounters counters;
    LineSinks sinks;
    bool in_burst = false;
    bool begun = false;
    std::int64_t begun_ns = 0;
    std::uint64_t packets = 0;  // with messages, as `every` counts them
    // Keyed by the time a packet is due, and by the order of arrival among equals.
    std::map<std::pair<std::int64_t, std::uint64_t>, WaitingPacket> waiting;
    std::size_t waiting_bytes = 0;
    std::uint64_t arrivals = 0;
    std::deque<HeldPacket> held;
    std::deque<std::int64_t> departures;  // of packets that the rate limit makes wait
    std::int64_t free_ns = 0;             // when the rate limit lets the next packet go
    std::int64_t last_sent_ns = 0;
    std::uint64_t next_sequence = 1;  // one past the highest number offered
    unsigned char session[10] = {};   // of the last packet
};

// Packets that wait in a line for their time, in bytes; beyond it they are dropped as by a full queue.
constexpr std::size_t waiting_bytes_max = std::size_t{64} << 20;
// After so long without a packet while messages are held back, the line makes a heartbeat.
constexpr std::int64_t heartbeat_ns = 1'000'000'000;

// The line before its first packet. Its draws depend on the seed and its name only.
Line make_line(std::string name, Impairments impairments, std::uint64_t seed, LineSinks sinks);

// Takes a packet at `now_ns`, which never falls. A packet that is due immediately is sent before the function
// returns.
void offer(Line& line, const unsigned char* bytes, std::size_t length, std::int64_t now_ns);

// Sends what is due by `now_ns`, in order of its time.
void send_due(Line& line, std::int64_t now_ns);

// When send_due has something to do; INT64_MAX when nothing waits.
std::int64_t next_due_ns(const Line& line);

// The end of the input: packets that wait for later ones go now. send_due sends the rest in its time.
void release_held(Line& line, std::int64_t now_ns);

// Sends an end-of-session packet with the next number.
void send_end_of_session(Line& line, std::int64_t now_ns);

// "received=10 sent=9 dropped=1 ...": the counters for the summary and the control channel.
std::string counters_text(const LineCounters& counters);

}  // namespace tessel::relay
