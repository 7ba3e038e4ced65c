// What asks the feeds of a folder of channels, whoever has started them.

#include "ctl/channel_commands.h"

#include "channels/plan_files.h"
#include "ctl/channel_watch.h"
#include "ctl/commands.h"
#include "ctl/control_client.h"
#include "ctl/json_text.h"
#include "ctl/options.h"

#include <unistd.h>
#include <algorithm>
#include <cstdio>

namespace tessel::ctl {

namespace {

using channels::Channel;
using channels::ChannelList;

int fail(ExitStatus status, const std::string& error) {
    std::fprintf(stderr, "tesselctl: %s\n", error.c_str());
    return static_cast<int>(status);
}

void print_status(const std::vector<ChannelStatus>& all) {
    std::printf("%-10s %-4s %12s %10s %10s %10s %6s\n", "channel", "up", "next_seq", "msgs/s", "dropped",
                "twice", "gaps");
    double rate = 0;
    std::uint64_t up = 0;
    for (const ChannelStatus& status : all) {
        if (!status.up) {
            std::printf("%-10s %-4s %12s %10s %10s %10s %6s\n", status.name.c_str(), "no", "-", "-", "-", "-",
                        "-");
            continue;
        }
        ++up;
        rate += status.rate;
        const std::string gaps = status.gaps < 0 ? "-" : std::to_string(status.gaps);
        std::printf("%-10s %-4s %12llu %10.0f %10llu %10llu %6s\n", status.name.c_str(), "yes",
                    static_cast<unsigned long long>(status.counters.next_sequence), status.rate,
                    static_cast<unsigned long long>(status.counters.dropped),
                    static_cast<unsigned long long>(status.counters.duplicated), gaps.c_str());
    }
    std::printf("%llu of %zu channels up, %.0f messages a second\n", static_cast<unsigned long long>(up),
                all.size(), rate);
}

// Adds what a feed counted to the sum; the counters keep the feed's order.
void add_counters(FeedCounters& sum, const FeedCounters& more) {
    for (const auto& [name, value] : more.counters) {
        const auto same = [&name = name](const auto& each) { return each.first == name; };
        const auto found = std::find_if(sum.counters.begin(), sum.counters.end(), same);
        if (found == sum.counters.end()) {
            sum.counters.emplace_back(name, value);
        } else {
            found->second += value;
        }
    }
    sum.sent += more.sent;
    sum.dropped += more.dropped;
    sum.duplicated += more.duplicated;
    sum.reordered += more.reordered;
}

}  // namespace

int read_channels(const ChannelsOptions& options, ChannelList& list) {
    std::string error;
    if (!channels::read_channel_list(options.folder + "/channels.json", channels::Needs::addresses, list,
                                     error)) {
        return fail(ExitStatus::asked_wrongly, error);
    }
    return static_cast<int>(ExitStatus::ok);
}

int plan_channels(const PlanCommand& command) {
    std::vector<channels::SymbolPrice> symbols;
    std::vector<channels::PlannedChannel> plan;
    std::string error;
    if (!channels::read_symbol_file(command.symbols, symbols, error) ||
        !channels::make_plan(command.options, symbols, plan, error) ||
        !channels::write_plan(plan, command.folder, error)) {
        return fail(ExitStatus::asked_wrongly, error);
    }
    std::size_t fewest = symbols.size();
    std::size_t most = 0;
    ChannelList list;
    for (const channels::PlannedChannel& planned : plan) {
        const Channel& channel = planned.channel;
        fewest = std::min(fewest, channel.symbols.size());
        most = std::max(most, channel.symbols.size());
        list.push_back(channel);
        if (channel.symbols.empty()) {
            std::fprintf(stderr, "tesselctl: note: %s has no symbols; --by count gives each some\n",
                         channel.name.c_str());
        }
    }
    if (command.json) {
        std::printf("%s", channels::channel_list_text(list).c_str());
    } else {
        std::printf("%zu channels of %zu to %zu symbols: %s/channels.json\n", plan.size(), fewest, most,
                    command.folder.c_str());
    }
    return static_cast<int>(ExitStatus::ok);
}

int channels_status(const ChannelsOptions& options) {
    ChannelList list;
    if (const int status = read_channels(options, list)) {
        return status;
    }
    const std::vector<ChannelStatus> all = watch_channels(list, options.timeout_ms, options.interval_seconds);
    if (options.json) {
        std::printf("%s\n", channels_status_json(all).c_str());
    } else {
        print_status(all);
    }
    const bool up = std::all_of(all.begin(), all.end(), [](const ChannelStatus& each) { return each.up; });
    return static_cast<int>(up ? ExitStatus::ok : ExitStatus::answer_is_no);
}

int channels_stats(const ChannelsOptions& options) {
    ChannelList list;
    if (const int status = read_channels(options, list)) {
        return status;
    }
    FeedCounters total;
    ExitStatus result = ExitStatus::ok;
    const std::vector<ChannelStatus> all = ask_channels(list, options.timeout_ms);
    for (std::size_t at = 0; at < all.size(); ++at) {
        if (all[at].up) {
            add_counters(total, all[at].counters);
        } else {
            result = ExitStatus::nobody_answers;
            fail(result, all[at].name + ": nobody answers at " + list[at].control);
        }
    }
    if (options.json) {
        std::printf("%s\n", channels_stats_json(total, all).c_str());
    } else {
        for (const auto& [name, value] : total.counters) {
            std::printf("%s=%llu ", name.c_str(), static_cast<unsigned long long>(value));
        }
        std::printf("sent=%llu dropped=%llu duplicated=%llu reordered=%llu\n",
                    static_cast<unsigned long long>(total.sent),
                    static_cast<unsigned long long>(total.dropped),
                    static_cast<unsigned long long>(total.duplicated),
                    static_cast<unsigned long long>(total.reordered));
    }
    return static_cast<int>(result);
}

int channels_control(const ChannelsOptions& options, const std::string& word, const std::string& symbol) {
    ChannelList list;
    if (const int status = read_channels(options, list)) {
        return status;
    }
    const Channel* const channel = channels::channel_of_symbol(list, symbol);
    if (channel == nullptr) {
        return fail(ExitStatus::answer_is_no, "no channel has the symbol '" + symbol.substr(0, 40) + "'");
    }
    return control_command({channel->control, options.timeout_ms, options.json}, word + " " + symbol);
}

}  // namespace tessel::ctl
