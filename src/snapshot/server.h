#pragma once

#include "engine/sip_engine.h"
#include "snapshot/spin.h"
#include "soup/soup_packet.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tessel {

constexpr std::size_t soup_packet_bytes_max = soup_length_bytes + 65535;
// What is kept and read of one connection in one pass at most: a sender that is faster than the loop waits in
// its socket.
constexpr std::size_t soup_input_bytes_max = 256 * 1024;
constexpr std::size_t soup_receive_bytes = 4096;         // in one call
constexpr std::uint32_t snapshot_connections_max = 999;  // of a run; logins on later connections are rejected
constexpr std::size_t snapshot_accepts_max = 64;         // in one pass
constexpr std::int64_t soup_heartbeat_after_ms = 1000;
constexpr std::int64_t soup_silence_max_ms = 15'000;
constexpr int spin_waits_max = 2000;  // of spin_wait_ms each, until a spin that nobody reads is abandoned
constexpr int spin_wait_ms = 10;

struct SoupPacket {
    char type = ' ';
    std::span<const unsigned char> payload;  // into the input it was taken from
};

// The packet at the start of input; false while it is not complete. consumed is its size in bytes.
// A Packet Length of 0 never completes: see is_blocked.
bool next_soup_packet(std::span<const unsigned char> input, SoupPacket& packet, std::size_t& consumed);

// Whether input begins with a Packet Length of 0: nothing from there on is ever looked at.
bool is_blocked(std::span<const unsigned char> input);

// A Login Request's fields, without trailing blanks and zero bytes. The password is not kept: nobody checks
// it.
struct LoginRequest {
    std::string username;
    std::string session;
    std::uint64_t sequence = 0;
};

// Reads a payload; one that is too short gives empty fields and 0. A sequence text is read as strtoull reads
// it.
LoginRequest read_login(std::span<const unsigned char> payload);

// The client of a connection without a socket. It must stay where it is while the service has it.
struct SnapshotPeer {
    std::vector<unsigned char> input;  // what the client has sent; the service takes it
    SpinSink sink;                     // is given every byte that the service sends, in order
    bool closed = false;               // by the service
};

struct SnapshotConnection {
    int fd = -1;                   // -1 once closed, and always for a connection in memory
    SnapshotPeer* peer = nullptr;  // null once closed, and always for a connection with a socket
    bool logged_in = false;
    bool blocked = false;   // a Packet Length of 0 was seen: bytes are received and dropped
    bool deferred = false;  // input begins with a second login, which waits for the next pass
    std::int64_t connected_ms = 0;
    std::int64_t last_receive_ms = 0;
    std::int64_t last_send_ms = 0;     // of the last heartbeat or spin
    std::vector<unsigned char> input;  // received, not parsed; at most soup_input_bytes_max
};

// Waits until the socket accepts bytes again, at most at_most_ms milliseconds.
using WaitForReader = void (*)(int fd, int at_most_ms);
void wait_until_writable(int fd, int at_most_ms);

struct SnapshotServer {
    WaitForReader wait_for_reader = wait_until_writable;  // a test counts the waits instead
    int listener = -1;
    bool accept_failing = false;  // out of descriptors: the listener stays readable and is not waited for
    std::uint32_t connections_accepted = 0;       // of the run
    std::vector<SnapshotConnection> connections;  // in accept order
    std::vector<unsigned char> gathered;          // one connection's input while it is served
    SpinBuffer spin;
};

// Opens the listener on all local addresses, non-blocking. False and the whole line for standard error
// ("tessel: cannot listen on Snap-Shot port 25179: Address already in use\n") when that fails.
bool open_listener(SnapshotServer& server, std::uint16_t port, std::string& error);

// Adds a connection without a socket, as if it had just been accepted.
void connect_in_memory(SnapshotServer& server, SnapshotPeer& peer, std::int64_t now_ms);

// The steady time of the next heartbeat or end of silence of a connection, 0 when one has input that waits;
// UINT64_MAX without connections.
std::uint64_t next_snapshot_due_ms(const SnapshotServer& server);

// One pass: accepts, receives, answers logins and logouts, sends heartbeats, times silent connections out.
// now_ms is the loop's steady time. Waits only while a spin goes out, and then at most spin_waits_max times.
void service_snapshots(SnapshotServer& server, SipEngine& engine, std::int64_t now_ms);

}  // namespace tessel
