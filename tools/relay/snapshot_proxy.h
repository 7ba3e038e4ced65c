#pragma once

#include "relay/options.h"

#include <poll.h>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <string>
#include <vector>

// Passes Snap-Shot connections on, with separate delay, bandwidth and sudden closes.
namespace tessel::relay {

constexpr std::size_t snapshot_connections_max = 64;
constexpr std::size_t snapshot_buffer_bytes_max = std::size_t{256} << 10;  // waiting in each direction

struct DelayedBytes {
    std::vector<unsigned char> bytes;
    std::size_t sent = 0;
    std::int64_t due_ns = 0;
};

struct Stream {
    std::deque<DelayedBytes> waiting;
    std::size_t waiting_bytes = 0;
    bool ended = false;  // the sender has nothing more
};

struct SnapshotConnection {
    int client = -1;
    int upstream = -1;
    bool connected = false;  // to the service
    Stream to_client;
    Stream to_service;
    std::uint64_t client_bytes = 0;  // sent to the client so far
    std::int64_t free_ns = 0;        // when the bandwidth lets the next byte go
};

struct SnapshotCounters {
    std::uint64_t connections = 0;
    std::uint64_t refused = 0;  // beyond the most at a time, or the service was not there
    std::uint64_t cut = 0;      // closed in the middle
};

struct SnapshotProxy {
    SnapshotOptions options;
    int fd = -1;
    SnapshotCounters counters;
    std::list<SnapshotConnection> connections;
};

bool open_snapshot_proxy(SnapshotProxy& proxy, const SnapshotOptions& options, std::string& error);

// Appends the descriptors that poll() has to watch.
void add_poll_entries(const SnapshotProxy& proxy, std::vector<pollfd>& entries, std::int64_t now_ns);

// Accepts, reads, and passes on what is due. Never waits.
void serve_snapshot_proxy(SnapshotProxy& proxy, std::int64_t now_ns);

// When something is due; INT64_MAX when nothing waits for the clock.
std::int64_t next_due_ns(const SnapshotProxy& proxy, std::int64_t now_ns);

void close_snapshot_proxy(SnapshotProxy& proxy);

}  // namespace tessel::relay
