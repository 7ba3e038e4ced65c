#pragma once

#include "channels/plan.h"

#include <string>
#include <vector>

// The commands of `tesselctl channels`. Each prints its result and returns the exit status.
namespace tessel::ctl {

struct ChannelsOptions {
    std::string folder;  // of a plan: channels.json, NAME.toml
    bool json = false;
    int timeout_ms = 5000;             // how long a reply may take
    std::vector<std::string> options;  // of the feed's own command line, for `up`
    double interval_seconds = 1;       // of `status`
};

struct PlanCommand {
    channels::PlanOptions options;
    std::string symbols;  // path of the symbol file
    std::string folder;
    bool json = false;
};

// Writes the files of a plan: 0, 2 for a plan that cannot be made or written.
int plan_channels(const PlanCommand& command);

// Starts the feed of every channel and returns when all answer: 0. 1 with the name of the channel when one
// does not come up or runs already; then none is left running. 2 for a bad configuration or option.
int channels_up(const ChannelsOptions& options);

// Ends the feeds that `up` has started and no other process: 0; 1 when one would not end.
int channels_stop(const ChannelsOptions& options);

// A line a channel: rate, faults, and the gaps that a receiver saw meanwhile. 0 when all are up, otherwise 1.
int channels_status(const ChannelsOptions& options);

// The counters of all channels, added up: 0; 3 when one does not answer.
int channels_stats(const ChannelsOptions& options);

// A control command with a symbol, sent to the channel that has it: 0; 1 for an unknown symbol or "err"; 3
// when nobody answers.
int channels_control(const ChannelsOptions& options, const std::string& word, const std::string& symbol);

// Reads FOLDER/channels.json; the status to end with, or 0.
int read_channels(const ChannelsOptions& options, channels::ChannelList& list);

}  // namespace tessel::ctl
