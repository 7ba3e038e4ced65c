#pragma once

#include "console/board.h"
#include "console/latency_record.h"
#include "console/market_book.h"
#include "mold/sequencer.h"
#include "receiver/snapshot_client.h"
#include "receiver/sockets.h"

#include <netinet/in.h>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

// The console as a consumer of the feed: joins the group, closes gaps, joins late, notices a new run, and
// puts a picture of what it has on the board four times a second.
namespace tessel::console {

struct ReceptionSettings {
    std::string group = "239.255.25.177";
    std::uint16_t port = 25177;
    std::string iface = "127.0.0.1";
    std::string session = "UTPBENCH01";
    bool has_retrans = false;
    sockaddr_in retrans{};
    bool has_snapshot = false;
    sockaddr_in snapshot{};
};

// The feed is gone when nothing was heard for this long: it sends a heartbeat every second.
constexpr std::int64_t silence_max_ms = 3'500;
constexpr std::int64_t publish_interval_ms = 250;

// With a Snap-Shot service, reception begins with a late join at the first packet heard.
enum class ReceptionPhase : std::uint8_t { waiting, joining, live };

// What was counted at one moment, for rates.
struct RateMark {
    std::int64_t at_ms = 0;
    std::uint64_t messages = 0;
    std::uint64_t packets = 0;
};

struct Reception {
    ReceptionSettings settings;
    std::string session;  // ten bytes, as in a packet
    Board* board = nullptr;
    receiver::MulticastSocket socket;
    int replies_fd = -1;
    receiver::Sequencer sequencer;
    receiver::SnapshotClient snapshot;
    MarketBook book;
    std::vector<MarketEvent> events;  // of this pass
    ReceptionPhase phase = ReceptionPhase::live;
    std::deque<receiver::WaitingPacket> held;  // packets that come while the Snap-Shot is read
    std::size_t held_bytes = 0;
    std::uint64_t held_lost = 0;  // packets for which there was no room
    std::uint64_t runs = 1;
    std::int64_t heard_ms = -1;  // when a packet of the session came last; -1: never
    bool packet_is_new = false;  // no message of it was taken yet
    std::uint64_t taken_ns = 0;  // when the packet at work was taken
    std::array<LatencyRecord, latency_stages> latency;
    std::array<LatencyPicture, latency_stages> latency_pictures;
    std::int64_t published_ms = 0;
    std::int64_t measured_ms = 0;     // when rates and latency pictures were made
    std::deque<RateMark> rate_marks;  // of the last second
    double messages_a_second = 0;
    double packets_a_second = 0;
};

// Opens the sockets. False with the reason in `error`.
bool open_reception(Reception& reception, const ReceptionSettings& settings, Board& board,
                    std::string& error);

// Receives until `stop`.
void run_reception(Reception& reception, const std::atomic<bool>& stop);

// One pass: waits at most 50 ms, takes what came, publishes when it is time.
void step_reception(Reception& reception);

void close_reception(Reception& reception);

}  // namespace tessel::console
