#pragma once

#include "channels/channel_list.h"
#include "ctl/run_config.h"

#include <sys/types.h>
#include <cstdint>
#include <string>

// The processes of a folder of channels. A process number alone says little, since numbers are used again: a
// process is a channel's feed when it began at the moment that was noted, and has the channel's options.
//
//     DIR/run/NAME.pid     the process number
//     DIR/run/NAME.start   when the process began, in clock ticks since boot
namespace tessel::ctl {

// Starts the feed in a session without a terminal, its output in the file at `log`, and notes it in
// DIR/run. Returns the process number, or 0 with the reason in `error`.
pid_t start_channel(const std::string& folder, const channels::Channel& channel, const RunConfig& config,
                    const std::string& program, const std::string& log, std::string& error);

// The channel's feed as it is noted in DIR/run, if that process is running and still the channel's feed;
// otherwise 0.
pid_t running_channel(const std::string& folder, const channels::Channel& channel);

enum class Stopped { not_running, ended, killed, failed };

// A feed that is being stopped.
struct Stopping {
    pid_t pid = 0;  // 0: it was not running
    int fd = -1;    // refers to that very process
};

// Interrupts the channel's feed if it runs.
Stopping begin_stop(const std::string& folder, const channels::Channel& channel);

// The same for a child of ours that has not been waited for.
Stopping begin_stop_child(pid_t pid);

// Waits `wait_ms` at most for its end, kills it then, and removes what was noted. Closes stopping.fd.
Stopped end_stop(const std::string& folder, const channels::Channel& channel, Stopping& stopping,
                 int wait_ms);

}  // namespace tessel::ctl
