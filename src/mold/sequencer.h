#pragma once

#include "mold/history_search.h"
#include "mold/line_arbiter.h"
#include "mold/packet.h"
#include "mold/restart_detector.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

// Puts the messages of MoldUDP64 packets in order: packets come in any order, twice or not at all; messages
// are delivered in sequence, each once. What is missing is requested, and abandoned when that does not help.
// A publisher that was started again under the same session begins a new run, numbered from 1.
// Several lines may carry the same numbers: the first copy of each is delivered, and a number is missing when
// no line has brought it, see line_arbiter.h.
//
// Pure: no socket and no clock. Packets and the time in steady milliseconds come in as arguments; messages,
// losses and requests to be sent go out through the functions of SequencerSinks.
namespace tessel::receiver {

struct SequencerSettings {
    std::string session = "UTPBENCH01";  // padded with blanks or cut to ten characters; others are ignored
    std::uint64_t first_sequence = 0;    // the number to begin with; 0: the first one received
    bool can_request = false;            // whether requests may be made
    std::size_t lines = 1;               // that carry the same messages, 1 to lines_max
    // Of several lines: how long one that brings nothing new keeps others' gaps open.
    std::int64_t patience_ms = 100;
    unsigned retries = 5;           // further requests for what a request did not bring
    std::int64_t timeout_ms = 250;  // how long a request may go without any reply
    // How long a gap is left to close by itself: a packet that was only late is there in well under this.
    // Without requests the gap is abandoned after `abandon_ms`.
    std::int64_t settle_ms = 5;
    std::int64_t abandon_ms = 500;
    std::size_t buffer_bytes_max = 64u << 20;       // packets kept after a gap
    std::uint64_t outstanding_messages_max = 4096;  // requested and not yet there, all requests together
    std::uint64_t request_messages_max = 1024;      // in one request, so that its reply fits a socket buffer
    // After a silence this long (a publisher sends a heartbeat every second) the last message is requested
    // once more: other bytes than before show that the publisher was started again.
    std::int64_t silence_ms = 2500;
};

struct SequencerSinks {
    // One message, in order. The bytes last until the function returns.
    std::function<void(std::uint64_t sequence, const unsigned char* bytes, std::size_t length)> message;
    // `count` messages from `first` on are abandoned.
    std::function<void(std::uint64_t first, std::uint64_t count)> lost;
    // A request packet to be sent to the retransmission service.
    std::function<void(const unsigned char* bytes, std::size_t length)> request;
    // May be empty. The service's history begins after those messages; `lost` follows for them.
    std::function<void(std::uint64_t first, std::uint64_t count)> expired;
    // May be empty. The publisher was started again: what is delivered from here on belongs to a new run, of
    // which number `first` is the first one known. Called after the last message and loss of the old run.
    std::function<void(std::uint64_t first)> restarted;
};

struct SequencerCounters {
    std::uint64_t packets = 0;  // well-formed packets of our session, heartbeats included
    std::uint64_t heartbeats = 0;
    std::uint64_t malformed = 0;  // packets whose blocks do not fit their length
    std::uint64_t other_session = 0;
    std::uint64_t delivered = 0;          // messages delivered
    std::uint64_t duplicate_packets = 0;  // packets that brought nothing new, not even on their own line
    std::uint64_t reordered_packets = 0;  // multicast packets that came after a later one and closed a gap
    std::uint64_t gaps = 0;               // times that numbers were found missing on every line
    std::uint64_t missed = 0;             // messages found missing
    std::uint64_t recovered = 0;          // messages brought by replies to requests
    std::uint64_t lost = 0;               // messages abandoned
    std::uint64_t expired = 0;            // of these: no longer in the service's history
    std::uint64_t requests = 0;
    std::uint64_t buffer_full = 0;      // packets dropped because too much is waiting already
    std::uint64_t sequence_resets = 0;  // heartbeats below a number received: the feed was started again
    std::uint64_t restarts = 0;         // new runs begun
    std::uint64_t old_run = 0;  // packets of the run before that a slower line brought after a restart
};

enum class PacketSource : std::uint8_t { multicast, retransmission };

// How a packet came.
struct PacketArrival {
    std::int64_t now_ms = 0;
    PacketSource source = PacketSource::multicast;
    std::size_t line = 0;       // below SequencerSettings::lines; of no meaning for replies
    std::int64_t stamp_ns = 0;  // when it arrived, on a clock that all lines share; 0: at now_ms
};

struct WaitingPacket {
    std::vector<unsigned char> bytes;
    PacketArrival arrival;
};

// A run of missing numbers [first, end).
struct Gap {
    std::uint64_t first = 0;
    std::uint64_t end = 0;
    std::int64_t found_ms = 0;
    std::int64_t requested_ms = 0;  // the last request or its last reply
    unsigned requests_sent = 0;     // requests so far
    bool abandoned = false;
};

struct Sequencer {
    SequencerSettings settings;
    SequencerSinks sinks;
    SequencerCounters counters;
    bool started = false;
    std::uint64_t next = 0;     // the number that is to be delivered next
    std::uint64_t highest = 0;  // one past the highest number known to exist
    std::deque<Gap> gaps;       // in order, apart from each other; what is missing below `highest`
    std::map<std::uint64_t, WaitingPacket> waiting;  // packets after a gap, by first number
    std::size_t waiting_bytes = 0;
    LineArbiter arbiter;
    // What is missing from this number on may still come on another line.
    std::uint64_t confirmed_below = UINT64_MAX;
    PacketArrival delivering;  // how the packet came whose message is being delivered
    RestartDetector detector;
    HistorySearch search;
    std::int64_t last_multicast_ms = -1;  // of our session; -1: none yet
    std::uint64_t check_number = 0;       // requested after a silence, see SequencerSettings; 0: none
    std::int64_t check_end_ms = 0;
};

// The sequencer before its first packet.
Sequencer make_sequencer(SequencerSettings settings, SequencerSinks sinks);

// Begins (or goes on) with that number, as a late joiner does after a Snap-Shot.
void start_at(Sequencer& sequencer, std::uint64_t sequence);

// Processes a packet. Bytes that are no packet of our session only count.
void on_packet(Sequencer& sequencer, const unsigned char* bytes, std::size_t length,
               const PacketArrival& arrival);

// The same for the only line.
inline void on_packet(Sequencer& sequencer, const unsigned char* bytes, std::size_t length,
                      std::int64_t now_ms, PacketSource source) {
    on_packet(sequencer, bytes, length, PacketArrival{now_ms, source});
}

// Sends the requests that are due and abandons what is overdue. Called whenever time may have passed.
void on_timer(Sequencer& sequencer, std::int64_t now_ms);

// Milliseconds until on_timer has something to do: 0 when it is due, -1 when nothing is missing.
std::int64_t next_timer_ms(const Sequencer& sequencer, std::int64_t now_ms);

// Abandons everything that is missing and delivers what waits after it.
void abandon_gaps(Sequencer& sequencer);

// True when every number known to exist was delivered or abandoned.
bool nothing_missing(const Sequencer& sequencer);

// Numbers of all runs so far that the line has not brought.
std::uint64_t missing_on_line(const Sequencer& sequencer, std::size_t line);

// The session text as the ten bytes of a packet's header.
std::string padded_session(const std::string& session);

}  // namespace tessel::receiver
