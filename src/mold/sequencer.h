#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

// Puts the messages of MoldUDP64 packets in order: packets come in any order, twice or not at all; messages
// go out one after the other, each once. What is missing is asked for again, and given up when that does not
// help.
//
// Pure: no socket and no clock. Packets and the time in steady milliseconds come in as arguments; messages,
// losses and requests to be sent go out through the three functions of SequencerSinks.
namespace tessel::receiver {

constexpr std::size_t mold_header_bytes = 20;
constexpr std::size_t mold_session_bytes = 10;
constexpr std::uint16_t mold_end_of_session_count = 0xffff;

struct SequencerSettings {
    std::string session = "UTPBENCH01";  // padded with blanks or cut to ten characters; others are not for us
    std::uint64_t first_sequence = 0;    // the number to begin with; 0: the first that is heard
    bool can_request = false;            // whether requests may be made
    unsigned retries = 5;                // further requests for what a request did not bring
    std::int64_t timeout_ms = 250;       // how long a request may go without any answer
    // How long a gap is left to close by itself: a packet that was only late is there in well under this.
    // Without requests the gap is given up after `abandon_ms`.
    std::int64_t settle_ms = 5;
    std::int64_t abandon_ms = 500;
    std::size_t buffer_bytes_max = 64u << 20;       // packets kept behind a gap
    std::uint64_t outstanding_messages_max = 4096;  // asked for and not yet there, all requests together
    std::uint64_t request_messages_max = 1024;      // in one request, so that its answer fits a socket buffer
};

struct SequencerSinks {
    // One message, in order. The bytes last until the function returns.
    std::function<void(std::uint64_t sequence, const unsigned char* bytes, std::size_t length)> message;
    // `count` messages from `first` on are given up.
    std::function<void(std::uint64_t first, std::uint64_t count)> lost;
    // A request packet to be sent to the retransmission service.
    std::function<void(const unsigned char* bytes, std::size_t length)> request;
};

struct SequencerCounters {
    std::uint64_t packets = 0;  // well-formed packets of our session, heartbeats included
    std::uint64_t heartbeats = 0;
    std::uint64_t malformed = 0;  // packets whose blocks do not fit their length
    std::uint64_t other_session = 0;
    std::uint64_t delivered = 0;          // messages handed out
    std::uint64_t duplicate_packets = 0;  // packets that brought nothing new
    std::uint64_t reordered_packets = 0;  // multicast packets that came behind a later one and closed a gap
    std::uint64_t gaps = 0;               // times that numbers were found missing
    std::uint64_t missed = 0;             // messages found missing
    std::uint64_t recovered = 0;          // messages brought by answers to requests
    std::uint64_t lost = 0;               // messages given up
    std::uint64_t requests = 0;
    std::uint64_t buffer_full = 0;      // packets put away because too much is waiting already
    std::uint64_t sequence_resets = 0;  // heartbeats below a number seen: the feed was started again
};

enum class PacketSource : std::uint8_t { multicast, retransmission };

// A run of missing numbers [first, end).
struct Gap {
    std::uint64_t first = 0;
    std::uint64_t end = 0;
    std::int64_t found_ms = 0;
    std::int64_t requested_ms = 0;  // the last request or its last answer
    unsigned requests_sent = 0;     // requests so far
    bool abandoned = false;
};

struct Sequencer {
    SequencerSettings settings;
    SequencerSinks sinks;
    SequencerCounters counters;
    bool started = false;
    std::uint64_t next = 0;     // the number that is to be handed out next
    std::uint64_t highest = 0;  // one past the highest number known to exist
    std::deque<Gap> gaps;       // in order, apart from each other; what is missing below `highest`
    std::map<std::uint64_t, std::vector<unsigned char>> waiting;  // packets behind a gap, by first number
    std::size_t waiting_bytes = 0;
};

// The sequencer before its first packet.
Sequencer make_sequencer(SequencerSettings settings, SequencerSinks sinks);

// Begins (or goes on) with that number, as a late joiner does after a Snap-Shot.
void start_at(Sequencer& sequencer, std::uint64_t sequence);

// Takes a packet.
void on_packet(Sequencer& sequencer, const unsigned char* bytes, std::size_t length, std::int64_t now_ms,
               PacketSource source);

// Sends the requests that are due and gives up what is overdue. Called whenever time may have passed.
void on_timer(Sequencer& sequencer, std::int64_t now_ms);

// Milliseconds until on_timer has something to do: 0 when it is due, -1 when nothing is missing.
std::int64_t next_timer_ms(const Sequencer& sequencer, std::int64_t now_ms);

// Gives up everything that is missing and hands out what waits behind it.
void abandon_gaps(Sequencer& sequencer);

// True when every number known to exist was handed out or given up.
bool nothing_missing(const Sequencer& sequencer);

// The session text as the ten bytes of a packet's header.
std::string padded_session(const std::string& session);

}  // namespace tessel::receiver
