#pragma once

#include "base/random.h"
#include "relay/options.h"

#include <netinet/in.h>
#include <poll.h>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// Passes requests for retransmission on, and the replies back, with separate loss and delay and a limit for
// each client.
namespace tessel::relay {

constexpr std::size_t retrans_clients_max = 256;  // the one that was silent longest goes
constexpr std::size_t retrans_waiting_bytes_max = std::size_t{64} << 20;

struct RetransCounters {
    std::uint64_t requests = 0;
    std::uint64_t replies = 0;
    std::uint64_t dropped = 0;
    std::uint64_t limited = 0;  // requests beyond the limit
};

// One client address, with a separate socket towards the service so that replies find their way back.
struct RetransClient {
    int fd = -1;
    std::int64_t last_ns = 0;
    double allowance = 0;  // requests it may make now
    std::int64_t allowance_ns = 0;
};

struct DelayedDatagram {
    std::vector<unsigned char> bytes;
    std::uint64_t client = 0;  // key of the client
    bool to_client = false;
};

struct RetransProxy {
    RetransOptions options;
    int fd = -1;
    Random random;
    RetransCounters counters;
    std::map<std::uint64_t, RetransClient> clients;  // by address and port
    std::map<std::pair<std::int64_t, std::uint64_t>, DelayedDatagram> waiting;
    std::size_t waiting_bytes = 0;
    std::uint64_t arrivals = 0;
};

bool open_retrans_proxy(RetransProxy& proxy, const RetransOptions& options, std::uint64_t seed,
                        std::string& error);

// Appends the descriptors that poll() has to watch.
void add_poll_entries(const RetransProxy& proxy, std::vector<pollfd>& entries);

// Passes on what has come, and what is due.
void serve_retrans_proxy(RetransProxy& proxy, std::int64_t now_ns);

// When something is due; INT64_MAX when nothing waits.
std::int64_t next_due_ns(const RetransProxy& proxy);

void close_retrans_proxy(RetransProxy& proxy);

}  // namespace tessel::relay
