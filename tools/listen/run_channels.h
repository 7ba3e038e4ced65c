#pragma once

#include "channels/channel_list.h"
#include "listen/listener.h"

// All channels of a list in one process, each thread with a group of them.
namespace tessel::listen {

// The options of one channel: its addresses from the list, the rest as given.
Options channel_options(const Options& options, const channels::Channel& channel);

// How many channels each of `threads` threads gets: sizes that differ by one at most, none empty.
std::vector<std::size_t> group_sizes(std::size_t channels, std::size_t threads);

// Receives until the options' end or a signal; an output a channel in options.out_dir. The status is that of
// the worst channel.
ExitStatus run_channels(const Options& options);

}  // namespace tessel::listen
