#pragma once

#include "app/config.h"
#include "app/control_channel.h"
#include "app/scenario_events.h"
#include "base/clock.h"
#include "base/random.h"
#include "engine/scenario.h"
#include "engine/sip_engine.h"
#include "mold/publisher.h"
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
};

// Runs the feed until a signal ends it: start-up, loop, stop. arguments without the program's name. The
// result is the process's exit status; what there is to say goes to standard error.
int run_feed(int count, const char* const* arguments);

}  // namespace tessel
