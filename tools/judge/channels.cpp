#include "judge/channels.h"

#include "channels/channel_list.h"
#include "judge/findings.h"
#include "judge/input.h"

#include <fmt/format.h>

#include <sys/stat.h>
#include <algorithm>
#include <atomic>
#include <exception>
#include <thread>
#include <vector>

namespace tessel::judge {

namespace {

// Judges one channel; what goes wrong is in its `error`.
void judge_channel(Channel& channel) {
    try {
        LineSource truth;
        LineSource output;
        const bool good = open_input(truth.input, channel.options.truth_path, channel.error) &&
                          open_input(output.input, channel.options.output_path, channel.error);
        if (!good) {
            return;
        }
        if (same_file(truth.input, output.input)) {
            channel.error = fmt::format("channel {}: TRUTH and OUTPUT are the same file", channel.name);
        } else if (truth.input.is_pipe || output.input.is_pipe) {
            channel.error =
                fmt::format("{}: not a regular file", (truth.input.is_pipe ? truth : output).input.name);
        } else {
            judge_sources(channel.options, truth, output, channel.result, channel.error);
        }
    } catch (const std::exception& fault) {  // no memory
        channel.error = fault.what();
    }
}

}  // namespace

bool read_channel_names(const std::string& file, std::vector<std::string>& names, std::string& error) {
    Input input;
    if (!open_input(input, file, error)) {
        return false;
    }
    if (input.is_pipe) {
        error = fmt::format("{}: not a regular file", file);
        return false;
    }
    std::string text;
    std::vector<char> buffer(64U << 10);
    while (true) {
        const ssize_t got = read_input(input, buffer.data(), buffer.size(), error);
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            break;
        }
        text.append(buffer.data(), static_cast<std::size_t>(got));
        if (text.size() > channels::channel_list_bytes_max) {
            error = fmt::format("{}: longer than {} bytes", file, channels::channel_list_bytes_max);
            return false;
        }
    }
    channels::ChannelList list;
    if (!channels::parse_channel_list(text, file, channels::Needs::names, list, error)) {
        return false;
    }
    for (const channels::Channel& channel : list) {
        names.push_back(channel.name);
    }
    return true;
}

std::string channel_file(const std::string& folder, const std::string& name) {
    std::string plain = folder + "/" + name + ".jsonl";
    for (const std::string_view suffix : {"", ".zst", ".gz"}) {
        std::string path = plain + std::string(suffix);
        struct stat facts {};
        if (::stat(path.c_str(), &facts) == 0) {
            return path;
        }
    }
    return plain;
}

bool judge_channels(const Options& options, const std::vector<std::string>& names,
                    std::vector<Channel>& channels, std::string& error) {
    channels.resize(names.size());
    for (std::size_t index = 0; index != names.size(); ++index) {
        Channel& channel = channels[index];
        channel.name = names[index];
        channel.options = options;
        channel.options.jobs = 1;
        channel.options.truth_path = channel_file(options.truth_path, names[index]);
        channel.options.output_path = channel_file(options.output_path, names[index]);
    }
    std::atomic<std::size_t> next = 0;
    const auto work = [&] {
        for (std::size_t index = next++; index < channels.size(); index = next++) {
            judge_channel(channels[index]);
        }
    };
    std::vector<std::thread> threads;
    for (std::size_t job = 1; job < std::min(options.jobs, channels.size()); ++job) {
        threads.emplace_back(work);
    }
    work();
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto bad = std::find_if(channels.begin(), channels.end(),
                                  [](const Channel& channel) { return !channel.error.empty(); });
    if (bad != channels.end()) {
        error = bad->error;
        return false;
    }
    return true;
}

Result add_up(const std::vector<Channel>& channels) {
    Result sum;
    for (const Channel& channel : channels) {
        add_totals(sum.totals, channel.result.totals);
        for (std::size_t member = 0; member != member_count; ++member) {
            sum.members[member].compared += channel.result.members[member].compared;
            sum.members[member].mismatched += channel.result.members[member].mismatched;
        }
    }
    return sum;
}

Verdict verdict(const std::vector<Channel>& channels) {
    const auto is = [](Verdict wanted) {
        return [wanted](const Channel& channel) { return verdict(channel.result) == wanted; };
    };
    if (std::all_of(channels.begin(), channels.end(), is(Verdict::agrees))) {
        return Verdict::agrees;
    }
    return std::any_of(channels.begin(), channels.end(), is(Verdict::differs)) ? Verdict::differs
                                                                               : Verdict::nothing_compared;
}

}  // namespace tessel::judge
