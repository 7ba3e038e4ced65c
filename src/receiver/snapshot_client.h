#pragma once

#include "soup/soup_packet.h"

#include <netinet/in.h>
#include <cstdint>
#include <functional>
#include <string>

// Fetches the state of the market from the Snap-Shot service: log in, read the spin, log out.
//
// The order that makes a late join whole is the caller's: join the multicast group and keep what comes in,
// then begin here; apply each message of the spin; when `state` is `done`, drop the kept messages up to
// `snapshot_sequence` and go on with the next one.
namespace tessel::receiver {

enum class SnapshotState : std::uint8_t { idle, connecting, logged_out, waiting, done, failed };

struct SnapshotSettings {
    sockaddr_in server{};
    std::string user;
    std::string password;
    std::string session;
    // Further attempts when the service is busy with another client, not there, or closes the connection.
    unsigned retries = 5;
    std::int64_t retry_ms = 500;  // between attempts
    // Without a step forward: a connection, an accepted login, a message of the spin. Heartbeats do not
    // count.
    std::int64_t timeout_ms = 30'000;
    std::int64_t heartbeat_ms = 1'000;
};

struct SnapshotClient {
    SnapshotSettings settings;
    // One message of the spin, in order; the end-of-snapshot message is the last.
    std::function<void(const unsigned char* bytes, std::size_t length)> message;
    // The spin broke off after some messages and is fetched anew: what they brought is to be forgotten. When
    // empty, a spin that breaks off is final.
    std::function<void()> restarted;
    SnapshotState state = SnapshotState::idle;
    int fd = -1;
    unsigned attempts = 0;
    std::int64_t next_attempt_ms = 0;
    std::int64_t last_progress_ms = 0;  // the last step forward
    std::int64_t last_send_ms = 0;
    SoupReader input;
    std::uint64_t messages = 0;           // of the spin, the end-of-snapshot message included
    std::uint64_t snapshot_sequence = 0;  // the last number that the spin covers
    std::string error;                    // why it failed
};

// Does whatever can be done now without waiting: connects, logs in, reads, sends a heartbeat, tries again.
void step_snapshot(SnapshotClient& client, std::int64_t now_ms);

// What poll() has to look for on `fd`: POLLIN, POLLOUT or 0.
short snapshot_events(const SnapshotClient& client);

// Milliseconds since the service's last step forward; 0 while no connection is open.
std::int64_t snapshot_stall_ms(const SnapshotClient& client, std::int64_t now_ms);

// What the service is waited for: "the connection", "the reply to the login" or "the spin".
const char* snapshot_awaited(const SnapshotClient& client);

// True until it is done or has failed.
bool snapshot_pending(const SnapshotClient& client);

// Closes the connection, whatever its state.
void close_snapshot(SnapshotClient& client);

}  // namespace tessel::receiver
