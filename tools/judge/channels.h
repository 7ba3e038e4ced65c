#pragma once

#include "judge/judge.h"

#include <string>
#include <vector>

namespace tessel::judge {

// One channel of a channel list, with its two files and what judging them has found.
struct Channel {
    std::string name;
    Options options;  // with the channel's paths
    Result result;
    std::string error;
};

// The channels' names in the list at `file`, which may be compressed. False with the file and a reason in
// `error`.
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
