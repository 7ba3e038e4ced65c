#pragma once

#include "base/clock.h"
#include "listen/listener.h"
#include "mold/sequencer.h"
#include "receiver/snapshot_client.h"
#include "receiver/sockets.h"

#include <poll.h>
#include <cstdint>
#include <deque>
#include <vector>

// Receiving one feed from the network, in pieces: a program of one feed and a thread of several channels put
// them together differently.
namespace tessel::listen {

// Everything that one feed's reception holds. Its sinks point at it, so it must stay where it is.
struct Live {
    Listener listener;
    std::vector<receiver::MulticastSocket> lines;
    Clock clock;
    int replies_fd = -1;
    receiver::SnapshotClient snapshot;
    bool joining = false;  // the Snap-Shot is not complete: packets are held
    std::deque<receiver::WaitingPacket> held;
    std::size_t held_bytes = 0;
    bool drops_reported = false;
    bool stall_reported = false;
    std::int64_t last_flush_ms = 0;
    std::int64_t last_view_ms = 0;
    std::uint64_t view_messages = 0;
    std::uint64_t restarts_before_end = 0;  // those that had come when begin_end was called
};

// Joins and opens everything. False, with the reason reported, when that fails.
bool prepare_live(Live& live, const Options& options);

// Adds the descriptors that may bring input to `entries`, and gives the milliseconds after which on_input is
// due in any case.
std::int64_t add_wait(const Live& live, std::vector<pollfd>& entries, std::int64_t now_ms);

// Processes everything that came, requests or abandons what is missing, writes.
void on_input(Live& live);

// Whether this feed's reception has come to its end: --count reached, an output or the Snap-Shot failed.
bool is_finished(const Live& live);

// Whether the end, once begun, need wait for nothing more.
bool is_complete(const Live& live);

// Shutting down. The feed sends no end-of-session packet, so what is known to be missing is recovered first,
// up to the highest number that has come. Nothing is to be done when reception is finished.
void begin_end(Live& live);

// Gives up what is still missing.
void complete_end(Live& live);

// How long the end may wait for what is missing: less after --seconds than after a signal, which a second one
// cuts short. `signals` is how many had come when the end began.
std::int64_t end_wait_ms(int signals);

// Closes the sockets.
void close_live(Live& live);

}  // namespace tessel::listen
