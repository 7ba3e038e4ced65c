#include "listen/run_channels.h"

#include "channels/files.h"
#include "listen/live.h"
#include "listen/report.h"
#include "listen/stop_signals.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <thread>

namespace tessel::listen {

namespace {

using channels::ChannelList;

// One channel, and the name that its reports carry.
struct ChannelLive {
    std::string name;
    Live live;
};

// The channels of one thread. A Live stays where it is, hence the deque.
struct Group {
    std::deque<ChannelLive> channels;
    std::string error;  // why the thread ended early
};

bool is_finished(const Group& group) {
    return std::all_of(group.channels.begin(), group.channels.end(),
                       [](const ChannelLive& each) { return is_finished(each.live); });
}

bool is_complete(const Group& group) {
    return std::all_of(group.channels.begin(), group.channels.end(),
                       [](const ChannelLive& each) { return is_complete(each.live); });
}

// Waits for input on any of the channels, then processes what has come on each.
void run_one_pass(Group& group, std::vector<pollfd>& entries) {
    entries.clear();
    const auto now_ms = static_cast<std::int64_t>(steady_ms());
    std::int64_t wait_ms = INT64_MAX;
    for (const ChannelLive& each : group.channels) {
        if (!is_finished(each.live)) {
            wait_ms = std::min(wait_ms, add_wait(each.live, entries, now_ms));
        }
    }
    poll(entries.data(), entries.size(), static_cast<int>(std::min<std::int64_t>(wait_ms, 1000)));
    for (ChannelLive& each : group.channels) {
        if (!is_finished(each.live)) {
            label_reports(each.name);
            on_input(each.live);
        }
    }
}

void receive_until_end(Group& group, double seconds) {
    const auto limit_ms = static_cast<std::int64_t>(seconds * 1000.0);
    std::int64_t end_ms = limit_ms == 0 ? INT64_MAX : static_cast<std::int64_t>(steady_ms()) + limit_ms;
    std::vector<pollfd> entries;
    while (stop_signals() == 0 && !is_finished(group) && static_cast<std::int64_t>(steady_ms()) < end_ms) {
        run_one_pass(group, entries);
    }
    const int signals = stop_signals();
    end_ms = static_cast<std::int64_t>(steady_ms()) + end_wait_ms(signals);
    for (ChannelLive& each : group.channels) {
        label_reports(each.name);
        begin_end(each.live);
    }
    while (!is_complete(group) && stop_signals() <= (signals != 0 ? 1 : 0) &&
           static_cast<std::int64_t>(steady_ms()) < end_ms) {
        run_one_pass(group, entries);
    }
    for (ChannelLive& each : group.channels) {
        label_reports(each.name);
        complete_end(each.live);
    }
}

void run_group(Group& group, double seconds) {
    try {
        receive_until_end(group, seconds);
    } catch (const std::exception& fault) {  // no memory
        group.error = fault.what();
    }
}

// Opens everything of every channel. False, with the reason reported, when that fails.
bool prepare(std::deque<Group>& groups, const Options& options, const ChannelList& list) {
    const std::size_t cores = std::max(1U, std::thread::hardware_concurrency());
    const std::size_t wanted = options.threads == 0 ? cores : options.threads;
    std::size_t at = 0;
    for (const std::size_t size : group_sizes(list.size(), wanted)) {
        groups.emplace_back();
        for (const std::size_t end = at + size; at < end; ++at) {
            Options own = channel_options(options, list[at]);
            ChannelLive& each = groups.back().channels.emplace_back();
            each.name = list[at].name;
            label_reports(each.name);
            std::string error;
            if ((!own.retrans.empty() &&
                 !receiver::parse_endpoint(own.retrans_address, own.retrans, error)) ||
                (!own.snapshot.empty() &&
                 !receiver::parse_endpoint(own.snapshot_address, own.snapshot, error))) {
                report(error);
                return false;
            }
            if (!prepare_live(each.live, own)) {
                return false;
            }
        }
    }
    label_reports("");
    return true;
}

// The summary of each channel and of all. Returns the status of the worst.
ExitStatus finish(std::deque<Group>& groups) {
    ExitStatus status = ExitStatus::nothing_missing;
    std::uint64_t messages = 0;
    std::uint64_t lines = 0;
    std::uint64_t lost = 0;
    std::size_t count = 0;
    std::size_t incomplete = 0;
    for (Group& group : groups) {
        for (ChannelLive& each : group.channels) {
            label_reports(each.name);
            close_live(each.live);
            const ExitStatus own = finish_listener(each.live.listener);
            incomplete += own == ExitStatus::nothing_missing ? 0 : 1;
            messages += each.live.listener.messages;
            lines += each.live.listener.output.lines;
            lost += each.live.listener.lost;
            ++count;
        }
        label_reports("");
        if (!group.error.empty()) {
            report(group.error);
            status = ExitStatus::something_missing;
        }
    }
    report_summary(fmt::format("{} channels: {} messages, {} lines, {} lost", count, messages, lines, lost));
    if (incomplete != 0) {
        report(fmt::format("{} of {} channels incomplete", incomplete, count));
        return ExitStatus::something_missing;
    }
    if (status == ExitStatus::nothing_missing) {
        report("nothing missing");
    }
    return status;
}

}  // namespace

Options channel_options(const Options& options, const channels::Channel& channel) {
    Options own = options;
    own.group = channel.group;
    own.port = channel.port;
    own.iface = options.iface_given ? options.iface : channel.iface;
    own.session = channel.session;
    own.retrans = options.no_retrans ? "" : channel.retrans;
    own.snapshot = options.late ? channel.snapshot : "";
    own.out = options.out_dir.empty() ? "" : options.out_dir + "/" + channel.name + ".jsonl";
    if (!options.from_given) {
        own.first_sequence = options.no_retrans || options.late ? 0 : 1;
    }
    return own;
}

std::vector<std::size_t> group_sizes(std::size_t channels, std::size_t threads) {
    const std::size_t groups = std::max<std::size_t>(1, std::min(channels, threads));
    std::vector<std::size_t> sizes;
    for (std::size_t group = 0; group < groups; ++group) {
        sizes.push_back((group + 1) * channels / groups - group * channels / groups);
    }
    return sizes;
}

ExitStatus run_channels(const Options& options) {
    ChannelList list;
    std::string error;
    if (!channels::read_channel_list(options.channels, channels::Needs::addresses, list, error) ||
        (!options.out_dir.empty() && !channels::make_folder(options.out_dir, error))) {
        report(error);
        return ExitStatus::bad_options;
    }
    std::deque<Group> groups;
    if (!prepare(groups, options, list)) {
        return ExitStatus::bad_options;
    }
    catch_stop_signals();
    report_summary(fmt::format("joined {} channels, {} thread{}, socket buffers of {} bytes", list.size(),
                               groups.size(), groups.size() == 1 ? "" : "s",
                               groups.front().channels.front().live.lines.front().buffer_bytes));
    std::vector<std::thread> threads;
    for (std::size_t at = 1; at < groups.size(); ++at) {
        threads.emplace_back([&group = groups[at], &options] { run_group(group, options.seconds); });
    }
    run_group(groups.front(), options.seconds);
    for (std::thread& thread : threads) {
        thread.join();
    }
    return finish(groups);
}

}  // namespace tessel::listen
