#pragma once

#include "certify/traffic_packets.h"

#include <netinet/in.h>
#include <poll.h>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

// Stands in front of the retransmission service: requests pass through it, and replies back, with what the
// case does to them. Which ones are hit is counted, not drawn, so that a case is the same every time.
namespace tessel::certify {

constexpr std::size_t retrans_clients_max = 16;
constexpr std::size_t retrans_waiting_max = 65'536;  // replies; more are lost

struct RetransCounters {
    std::uint64_t requests = 0;
    std::uint64_t ignored = 0;
    std::uint64_t replies = 0;
    std::uint64_t lost = 0;
};

struct RetransTraffic {
    std::vector<TrafficSettings> settings;
    int fd = -1;
    sockaddr_in upstream{};
    RetransCounters counters;
    std::vector<std::pair<sockaddr_in, int>> clients;  // each with its own socket towards the service
    // Replies that wait, by time and order: which client, and the bytes.
    std::map<std::pair<std::int64_t, std::uint64_t>, std::pair<std::size_t, Packet>> waiting;
    std::uint64_t arrivals = 0;
};

// What becomes of a request: false when it is not passed on; its count may be lowered.
bool on_request(RetransTraffic& traffic, Packet& request);

// Appends what is sent for a reply of the service, with delays.
void on_reply(RetransTraffic& traffic, Packet reply, std::vector<OutgoingPacket>& out);

// Listens at `listen`, HOST:PORT, and asks at `upstream`. False with the reason in `error`.
bool open_retrans(RetransTraffic& traffic, const std::string& listen, const std::string& upstream,
                  std::string& error);

void add_poll_entries(const RetransTraffic& traffic, std::vector<pollfd>& entries);

// Passes on what has come, and what is due.
void serve(RetransTraffic& traffic, std::int64_t now_ns);

// INT64_MAX when nothing waits.
std::int64_t next_due_ns(const RetransTraffic& traffic);

void close_retrans(RetransTraffic& traffic);

}  // namespace tessel::certify
