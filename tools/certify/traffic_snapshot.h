#pragma once

#include "certify/traffic_kinds.h"

#include <netinet/in.h>
#include <poll.h>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <string>
#include <vector>

// Stands in front of the Snap-Shot service: connections pass through it, except those that the case has it
// reject, close or cut.
namespace tessel::certify {

constexpr std::size_t snapshot_connections_max = 16;
constexpr std::size_t snapshot_buffer_bytes_max = std::size_t{256} << 10;

// What a connection is there for, decided when it comes.
enum class SnapshotRole : std::uint8_t { pass, reject, close };

struct SnapshotPassage {
    SnapshotRole role = SnapshotRole::pass;
    int client = -1;
    int upstream = -1;
    std::uint64_t cut_after = 0;  // bytes to the client; 0: never
    std::deque<unsigned char> to_client;
    std::vector<unsigned char> to_service;
    bool service_ended = false;
    std::uint64_t sent = 0;
    std::int64_t free_ns = 0;  // when the next piece may go
};

struct SnapshotTraffic {
    std::vector<TrafficSettings> settings;
    int fd = -1;
    sockaddr_in upstream{};
    std::uint64_t connections = 0;
    std::uint64_t rejected = 0;
    std::uint64_t closed = 0;
    std::uint64_t cut = 0;
    std::list<SnapshotPassage> passages;
};

// What becomes of connection `number`, counted from 1: its role and where it is cut.
void decide_passage(const SnapshotTraffic& traffic, std::uint64_t number, SnapshotPassage& passage);

bool open_snapshot(SnapshotTraffic& traffic, const std::string& listen, const std::string& upstream,
                   std::string& error);

void add_poll_entries(const SnapshotTraffic& traffic, std::vector<pollfd>& entries, std::int64_t now_ns);

// Accepts, reads, and passes on what is due. Never waits.
void serve(SnapshotTraffic& traffic, std::int64_t now_ns);

// INT64_MAX when nothing waits for the clock.
std::int64_t next_due_ns(const SnapshotTraffic& traffic, std::int64_t now_ns);

void close_snapshot(SnapshotTraffic& traffic);

}  // namespace tessel::certify
