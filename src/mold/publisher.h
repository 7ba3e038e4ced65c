#pragma once

#include "base/clock.h"
#include "mold/fault_injector.h"
#include "mold/message_history.h"
#include "mold/packet.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tessel {

constexpr std::size_t packet_bytes_max = 1500;  // header included
constexpr std::uint16_t packet_messages_max = 65534;
constexpr std::size_t history_messages_max = 400'000;
constexpr std::int64_t heartbeat_after_ms = 1000;  // silence before a heartbeat

// Where packets go. A test puts its own here; open() leaves it empty, which means sendto on feed_socket.
struct PacketSink {
    void (*send)(void* context, const unsigned char* packet, std::size_t length) = nullptr;
    void* context = nullptr;
};

// Turns encoded messages into MoldUDP64 packets for one multicast group, gives each its sequence number and
// keeps the last 400,000 for retransmission.
struct MoldPublisher {
    int feed_socket = -1;             // every downstream packet and heartbeat
    int retrans_socket = -1;          // the retransmission service's; -1 when no port is configured
    std::uint32_t group_address = 0;  // where they go; both in network byte order
    std::uint16_t group_port = 0;
    std::array<char, mold_session_bytes> session{};  // padded with blanks
    std::array<unsigned char, packet_bytes_max> packet{};
    std::uint64_t packet_length = mold_header_bytes;  // bytes used, header included
    std::uint16_t packet_count = 0;                   // messages in the open packet
    std::uint64_t packet_first_sequence = 1;
    std::string session_name;         // as configured
    std::uint64_t next_sequence = 1;  // what the next message receives
    std::uint64_t messages_sequenced = 0;
    std::uint64_t packets_flushed = 0;   // non-empty ones, dropped ones included; also the last packet number
    std::uint64_t retrans_served = 0;    // requests accepted
    std::uint64_t retrans_rejected = 0;  // requests with another session
    std::uint64_t faults_dropped = 0;
    std::uint64_t faults_duplicated = 0;
    std::uint64_t faults_reordered = 0;
    std::int64_t last_flush_ms = 0;  // steady time of the last flush or heartbeat
    FaultInjector faults;
    std::vector<unsigned char> held_packet;  // held back for reordering; empty when none
    RetransStore history;                    // messages next_sequence - count to next_sequence - 1
    Clock* clock = nullptr;
    PacketSink sink;
};

// Sets the initial state without a socket: what open() does first, and all that a test in memory needs.
void reset_publisher(MoldPublisher& publisher, Clock& clock, const std::string& session);

// Initial state and sockets. Group and interface are dotted IPv4 texts; one that does not parse leaves the
// address zero. A retrans_port of 0 opens no retransmission socket. Failed calls are not reported: the feed
// runs but reaches nobody.
void open_publisher(MoldPublisher& publisher, Clock& clock, const std::string& group, std::uint16_t port,
                    const std::string& interface, std::uint16_t retrans_port, const std::string& session);

// Takes one complete message, at most 65,535 bytes, and returns its sequence number. Flushes first when the
// message does not fit the open packet. A message over 1,478 bytes gets a number and a place in the history
// but is never sent.
std::uint64_t append_message(MoldPublisher& publisher, const unsigned char* message, std::size_t length);

// Closes the open packet and sends it as the faults decide; nothing when it is empty.
void flush_packet(MoldPublisher& publisher);

// Flushes, then sends an empty packet that carries the next sequence number. Called when heartbeat_after_ms
// have passed since last_flush_ms.
void send_heartbeat(MoldPublisher& publisher);

// The sequence number of the last message, 0 before the first: what "bench:" lines give.
inline std::uint64_t last_sequence(const MoldPublisher& publisher) {
    return publisher.next_sequence - 1;
}

}  // namespace tessel
