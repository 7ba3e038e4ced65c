#pragma once

#include "app/config.h"
#include "app/control_channel.h"
#include "app/scenario_events.h"
#include "base/clock.h"
#include "base/random.h"
#include "engine/scenario.h"
#include "engine/sip_engine.h"
#include "mold/publisher.h"
#include "output/book_file.h"
#include "snapshot/server.h"

#include <poll.h>
#include <cstdint>
#include <string>
#include <vector>

namespace tessel {

enum class ExitStatus : int { stopped = 0, cannot_listen = 1, bad_command_line = 2 };

// The whole program but its command line: one of these lives from start to end. Times are steady
// milliseconds.
struct Feed {
    // No sockets, no periodic reports: packets go to publisher.sink, truth lines to engine.truth.sink, and
    // whoever runs the passes puts the time into `clock` and the commands into handle_command.
    bool offline = false;
    FeedConfig config;
    Clock clock;
    Random random;
    MoldPublisher publisher;
    Scenario scenario;
    SipEngine engine;
    int control_socket = -1;  // -1: no control channel
    SnapshotServer snapshot;

    ScenarioMarks marks;
    std::int32_t interval_ms = 100;  // ticks; negative: the model is frozen
    std::uint64_t start_ms = 0;      // scenario times count from here
    std::uint64_t last_tick_ms = 0;
    std::uint64_t last_stats_ms = 0;
    std::uint64_t last_summary_ms = 0;
    std::uint64_t last_files_ms = 0;  // 0: the files are written in the first pass

    std::vector<pollfd> poll_set;  // reused from pass to pass
    std::string file_text;         // likewise, for the book and BBO files
    ReserveDescriptor reserve;     // for the same files
};

// Start-up after option parsing, in an order that is observable from outside. The caller has filled config
// (and, for an offline feed, offline, clock and the sinks). False: the feed cannot start; status is the exit
// status and error the line for standard error, "tessel: ..." with its line feed.
bool start_feed(Feed& feed, ExitStatus& status, std::string& error);

// One pass of the loop without its wait: everything that is due at now_ms, in the order that receivers see.
// False: the control channel has been asked to stop, and nothing else was done.
bool run_one_pass(Feed& feed, std::uint64_t now_ms);

// Fills feed.poll_set with what ends the wait between two passes: the listener, the control channel and every
// Snap-Shot connection. The feed's and the retransmission socket are not waited for.
void list_inputs(Feed& feed);

// The steady time at which the next pass finds something to do by itself: a tick, a heartbeat, a scripted
// event, a Snap-Shot connection's timer. UINT64_MAX: never. It may be in the past: due now.
std::uint64_t next_due_ms(const Feed& feed);

// Runs the feed until a signal ends it: start-up, loop, stop. arguments without the program's name. The
// result is the process's exit status; what there is to say goes to standard error.
int run_feed(int count, const char* const* arguments);

}  // namespace tessel
