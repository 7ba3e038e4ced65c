#pragma once

#include "judge/judge.h"

#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {

// One channel of a channel list, with its two files and what judging them has found.
struct Channel {
    std::string name;
    Options options;  // with the channel's paths
    Result result;
    std::string error;
};

// A channel list is read up to this size; thousands of channels with their symbols are a tenth of it.
inline constexpr std::size_t channel_list_bytes_max = 16U << 20;

// The channels' names in a list: {"version": 1, "channels": [{"name": "ch01", ...}, ...]}, other members
// ignored. A name is part of file names, so it has no '/', does not begin with '.', and comes once. False
// with the file and a reason in `error`.
bool parse_channel_names(std::string_view text, const std::string& file, std::vector<std::string>& names,
                         std::string& error);
bool read_channel_names(const std::string& file, std::vector<std::string>& names, std::string& error);

// The file of a channel in a folder: NAME.jsonl, or NAME.jsonl.zst, or NAME.jsonl.gz. The first when none
// exists.
std::string channel_file(const std::string& folder, const std::string& name);

// Judges the channels of a list, `options.jobs` of them side by side: options.truth_path and
// options.output_path are folders. False with the first channel's reason in `error` when one cannot be
// judged.
bool judge_channels(const Options& options, const std::vector<std::string>& names,
                    std::vector<Channel>& channels, std::string& error);

// The sum of all channels: totals and members.
Result add_up(const std::vector<Channel>& channels);

// Agrees only if every channel does; differs if one does.
Verdict verdict(const std::vector<Channel>& channels);

}  // namespace tessel::judge
