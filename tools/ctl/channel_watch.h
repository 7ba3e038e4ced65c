#pragma once

#include "channels/channel_list.h"
#include "ctl/stats.h"

#include <cstdint>
#include <string>
#include <vector>

// All channels at a glance, from their control channels and their groups.
namespace tessel::ctl {

struct ChannelStatus {
    std::string name;
    bool up = false;  // it answers on its control channel; otherwise the rest means nothing
    FeedCounters counters;
    double rate = 0;         // messages a second during the interval
    std::int64_t gaps = -1;  // stretches of missing numbers that a receiver saw in the interval; -1: it could
                             // not join the group, or could not keep up
};

// Asks every channel for its counters, all in the same `timeout_ms`. In the order of the list.
std::vector<ChannelStatus> ask_channels(const channels::ChannelList& list, int timeout_ms);

// Joins every group, asks for the counters, counts gaps for `seconds`, and asks again.
std::vector<ChannelStatus> watch_channels(const channels::ChannelList& list, int timeout_ms, double seconds);

}  // namespace tessel::ctl
