#pragma once

#include "ctl/channel_watch.h"
#include "ctl/run_config.h"
#include "ctl/stats.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Everything that tesselctl writes for machines, one JSON object a line. The JSON library is used here and
// nowhere else.
namespace tessel::ctl {

// {"program":"/usr/bin/tessel","arguments":["--port","25177"],"scenario":"halt_after=5"}; scenario is null
// without one.
std::string command_json(const RunConfig& config, const std::string& program);

// {"command":"halt AAPL","ok":true,"reply":"ok halt AAPL"}
std::string reply_json(std::string_view command, std::string_view reply);

// {"quotes":165,...,"next_seq":218,"faults":{"sent":22,"dropped":0,"duplicated":0,"reordered":0}}
std::string stats_json(const FeedCounters& stats);

// {"line":3,"at":2.5,"command":"halt AAPL","ok":true,"reply":"ok halt AAPL"}: a line of a timeline, `at` in
// seconds.
std::string played_json(std::uint32_t line, double at_seconds, std::string_view command,
                        std::string_view reply);

// {"sent":1000,"damaged":20,"received":975,"lost":5}
std::string account_json(std::int64_t sent, std::int64_t damaged, std::int64_t received, std::int64_t lost);

struct Check {
    std::string name;
    std::string result;  // "ok", "warning" or "problem"
    std::string text;
    std::string fix;  // a command; empty when there is nothing to repair
};

// {"checks":[{"name":"interface","result":"ok","text":"...","fix":""},...]}
std::string checks_json(const std::vector<Check>& checks);

// {"channels":[{"name":"ch01","pid":4711},...]}
std::string processes_json(const std::vector<std::pair<std::string, std::int64_t>>& processes);

// {"channels":[{"name":"ch01","result":"ended"},...]}
std::string stopped_json(const std::vector<std::pair<std::string, std::string>>& results);

// {"channels":[{"name":"ch01","up":true,"next_seq":218,"rate":160.0,"dropped":2,"gaps":0},...]}; of a channel
// that is not up the rest is null, and so are gaps that could not be counted.
std::string channels_status_json(const std::vector<ChannelStatus>& all);

// {"total":{"quotes":165,...,"faults":{...}},"channels":[{"name":"ch01","quotes":165,...,"next_seq":218,
// "faults":{...}},...]}: the channels that are up.
std::string channels_stats_json(const FeedCounters& total, const std::vector<ChannelStatus>& all);

// The member of that name of the object in `text`, when it is a whole number. False for anything else.
bool read_json_number(std::string_view text, const char* member, std::int64_t& value);

}  // namespace tessel::ctl
