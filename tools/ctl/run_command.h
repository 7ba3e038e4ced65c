#pragma once

#include "ctl/run_config.h"

#include <string>
#include <vector>

namespace tessel::ctl {

struct RunOptions {
    std::string config;  // path; empty: the feed's defaults
    bool dry_run = false;
    bool json = false;                 // with dry_run: the command as one JSON object
    std::vector<std::string> options;  // of the feed's own command line
};

// The command that the run comes to, as a shell reads it: "TESSEL_SCENARIO='halt_after=5' tessel --port
// 25177".
std::string command_line(const RunConfig& config, const std::string& program);

// The feed beside this program, otherwise the first on the search path; empty when there is none.
std::string find_feed();

// Text as one word of a shell's command line.
std::string shell_word(const std::string& text);

// Checks everything, then becomes the feed: its signals, outputs and exit status are those of the process.
// Returns only when there is nothing to start: 0 after a dry run that found no fault, 2 after a fault, which
// has been printed.
int run(const RunOptions& options);

}  // namespace tessel::ctl
