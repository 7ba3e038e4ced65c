#pragma once

#include "ctl/script_player.h"

#include <cstdint>
#include <string>

// What tesselctl does with a running feed. Each function prints its result and returns the exit status.
namespace tessel::ctl {

struct ControlOptions {
    std::string endpoint = "127.0.0.1:25180";
    int timeout_ms = 5000;
    bool json = false;
};

// One control command, its reply on standard output: 0, 1 for "err", 2 when the feed would not take it as it
// is meant, 3 when nobody answers.
int control_command(const ControlOptions& control, const std::string& command);

// A command passed on without a look at it, as for a relay: 0, 1 for "err", 3 when nobody answers.
int plain_command(const ControlOptions& control, const std::string& command);

struct StatsOptions {
    bool watch = false;
    double interval_seconds = 1;
    std::uint64_t count = 0;  // lines of a watch; 0: until stopped
};

// The statistics: the reply as it is, as JSON, or with `watch` a line of rates every interval.
int show_stats(const ControlOptions& control, const StatsOptions& options);

int script(const ControlOptions& control, const std::string& path, const ScriptOptions& options);

struct AccountOptions {
    std::int64_t received = -1;
    std::string listen_summary;  // path of what tessel-listen wrote to standard error
    std::string feed_log;        // path of what the feed wrote to standard error; empty: reckon the damage
};

int account(const ControlOptions& control, const AccountOptions& options);

}  // namespace tessel::ctl
