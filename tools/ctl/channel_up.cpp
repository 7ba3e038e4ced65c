// Starting and ending the feeds of a folder of channels.

#include "channels/files.h"
#include "ctl/channel_commands.h"
#include "ctl/channel_process.h"
#include "ctl/control_client.h"
#include "ctl/json_text.h"
#include "ctl/options.h"
#include "ctl/run_checks.h"
#include "ctl/run_command.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

namespace tessel::ctl {

namespace {

using channels::Channel;
using channels::ChannelList;
using Clock = std::chrono::steady_clock;

constexpr auto ready_max = std::chrono::seconds(60);
constexpr int ready_reply_ms = 50;
constexpr auto ready_pause = std::chrono::milliseconds(10);
constexpr int stop_max_ms = 30'000;
constexpr std::size_t log_shown_bytes = 120;

// One feed that is being started.
struct Start {
    const Channel* channel = nullptr;
    RunConfig config;
    std::string log;
    pid_t pid = 0;  // 0: not started, or ended
    ControlClient control;
    bool ready = false;
};

int fail(ExitStatus status, const std::string& error) {
    std::fprintf(stderr, "tesselctl: %s\n", error.c_str());
    return static_cast<int>(status);
}

// The folder of a plan without "." and links, so that the feeds' command lines name the files wherever they
// are looked at from.
std::string resolved_folder(const std::string& folder) {
    std::error_code error;
    const std::filesystem::path path = std::filesystem::canonical(folder, error);
    return error ? folder : path.string();
}

// Holds the folder until the process ends, against a second `up` or `stop` beside this one.
bool hold_folder(const std::string& folder, std::string& error) {
    if (!channels::make_folder(folder + "/run", error)) {
        return false;
    }
    const int fd = open((folder + "/run").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || flock(fd, LOCK_EX | LOCK_NB) != 0) {
        error = folder + ": another tesselctl starts or stops these channels";
        return false;
    }
    return true;
}

// What the plan gives each channel cannot be given to all of them alike. Names the option, or is empty.
std::string planned_option(const std::vector<std::string>& options) {
    RunConfig config;
    std::vector<std::string> faults;
    add_options(options, config, faults);
    for (const Setting& setting : config.settings) {
        const std::string_view key = setting.key->key;
        const bool addressed = key == "mcast" || key == "port" || key == "iface" || key == "retrans_port" ||
                               key == "snapshot_port" || key == "control_port" || key == "session" ||
                               key == "symbols";
        const bool written = key == "book_out" || key == "bbo_out" || key == "truth_out";
        if (addressed || (written && !setting.value.empty())) {
            return setting.where;
        }
    }
    return "";
}

// What the configuration and the list have to agree on, so that the feed is found again.
void compare_with_list(const Channel& channel, const RunConfig& config, const std::string& path,
                       std::vector<std::string>& faults) {
    const std::string control = channel.control.substr(channel.control.rfind(':') + 1);
    const std::pair<const char*, const std::string&> expected[] = {{"session", channel.session},
                                                                   {"control_port", control}};
    for (const auto& [key, value] : expected) {
        const std::string configured = value_or(config, "feed", key, "");
        if (configured != value) {
            faults.push_back(path + ": " + key + " '" + configured + "', but '" + value +
                             "' in channels.json");
        }
    }
}

// The feed's configuration: the channel's file, the options of `up`, and where the truth log goes.
bool configure(const std::string& folder, const ChannelsOptions& options, Start& start,
               std::vector<std::string>& faults) {
    const std::string name = start.channel->name;
    start.log = folder + "/log/" + name + ".log";
    const std::vector<std::string> truth = {"--truth-out", folder + "/truth/" + name + ".jsonl"};
    const std::string path = folder + "/" + start.channel->config;
    if (!read_run_config_file(path, start.config, faults)) {
        return false;
    }
    compare_with_list(*start.channel, start.config, path, faults);
    return add_options(truth, start.config, faults) && add_options(options.options, start.config, faults) &&
           faults.empty();
}

// The last line of the channel's log.
std::string last_line(const std::string& path) {
    std::string text;
    std::string error;
    constexpr std::size_t log_bytes_max = std::size_t{16} << 20;
    if (!channels::read_text_file(path, log_bytes_max, text, error)) {
        return "";
    }
    text.erase(text.find_last_not_of('\n') + 1);
    const std::size_t line = text.rfind('\n');
    text.erase(0, line == std::string::npos ? 0 : line + 1);
    return text.substr(0, log_shown_bytes);
}

// Whether the feed has ended; then `error` says how.
bool has_ended(Start& start, std::string& error) {
    int status = 0;
    if (waitpid(start.pid, &status, WNOHANG) != start.pid) {
        return false;
    }
    start.pid = 0;
    error = start.channel->name + ": the feed ended with " +
            (WIFEXITED(status) ? "status " + std::to_string(WEXITSTATUS(status))
                               : "signal " + std::to_string(WTERMSIG(status)));
    const std::string line = last_line(start.log);
    error += line.empty() ? "" : ": " + line;
    return true;
}

// Waits until all answer on their control channels. False with the reason when one does not.
bool wait_until_ready(std::vector<Start>& starts, std::string& error) {
    const Clock::time_point end = Clock::now() + ready_max;
    while (true) {
        const Start* waited = nullptr;
        for (Start& start : starts) {
            if (has_ended(start, error)) {
                return false;
            }
            std::string reply;
            std::string ignored;
            if (!start.ready) {
                start.ready = ask(start.control, "stats", reply, ignored) == Answer::reply;
                waited = start.ready ? waited : &start;
            }
        }
        if (waited == nullptr) {
            return true;
        }
        if (Clock::now() >= end) {
            error = waited->channel->name + ": the feed does not answer at " + waited->channel->control +
                    " after " + std::to_string(ready_max.count()) + " s; see " + waited->log;
            return false;
        }
        std::this_thread::sleep_for(ready_pause);
    }
}

bool start_all(const std::string& folder, const std::string& program, std::vector<Start>& starts,
               std::string& error) {
    for (Start& start : starts) {
        const Channel& channel = *start.channel;
        std::string reason;
        if (!open_control(channel.control, ready_reply_ms, start.control, reason)) {
            error = channel.name + ": control: " + reason;
            return false;
        }
        start.pid = start_channel(folder, channel, start.config, program, start.log, reason);
        if (start.pid == 0) {
            error = channel.name + ": " + reason;
            return false;
        }
    }
    return wait_until_ready(starts, error);
}

// Ends what has been started.
void stop_started(const std::string& folder, std::vector<Start>& starts) {
    std::vector<Stopping> stopping;
    stopping.reserve(starts.size());
    for (const Start& start : starts) {
        stopping.push_back(start.pid != 0 ? begin_stop_child(start.pid) : Stopping{});
    }
    for (std::size_t at = 0; at < starts.size(); ++at) {
        end_stop(folder, *starts[at].channel, stopping[at], stop_max_ms);
    }
}

// Everything that can be known before a feed is started. The status to end with, or 0.
int prepare(const std::string& folder, const ChannelsOptions& options, const ChannelList& list,
            std::vector<Start>& starts) {
    const std::string planned = planned_option(options.options);
    if (!planned.empty()) {
        return fail(ExitStatus::asked_wrongly,
                    planned + " cannot be the same for all channels: it is in the plan");
    }
    std::vector<std::string> faults;
    for (const Channel& channel : list) {
        starts.push_back({});
        starts.back().channel = &channel;
        if (!configure(folder, options, starts.back(), faults)) {
            break;
        }
    }
    for (const std::string& fault : faults) {
        fail(ExitStatus::asked_wrongly, fault);
    }
    std::string error;
    if (faults.empty() && (!channels::make_folder(folder + "/truth", error) ||
                           !channels::make_folder(folder + "/log", error))) {
        fail(ExitStatus::asked_wrongly, error);
    }
    return static_cast<int>(faults.empty() && error.empty() ? ExitStatus::ok : ExitStatus::asked_wrongly);
}

// What stands in the way of a start: a channel that runs, a port that is taken. Each fault is reported.
bool check_channels(const std::string& folder, const std::vector<Start>& starts) {
    bool good = true;
    for (const Start& start : starts) {
        std::vector<std::string> faults;
        const pid_t pid = running_channel(folder, *start.channel);
        if (pid != 0) {
            faults.push_back("runs already (pid " + std::to_string(pid) + ")");
        } else {
            check_host(start.config, faults);
        }
        for (const std::string& fault : faults) {
            fail(ExitStatus::answer_is_no, start.channel->name + ": " + fault);
        }
        good = good && faults.empty();
    }
    return good;
}

}  // namespace

int channels_up(const ChannelsOptions& options) {
    ChannelList list;
    if (const int status = read_channels(options, list)) {
        return status;
    }
    const std::string folder = resolved_folder(options.folder);
    const std::string program = find_feed();
    std::vector<Start> starts;
    if (program.empty()) {
        return fail(ExitStatus::asked_wrongly, "no program 'tessel' beside this one or on the search path");
    }
    if (const int status = prepare(folder, options, list, starts)) {
        return status;
    }
    std::string error;
    if (!hold_folder(folder, error)) {
        return fail(ExitStatus::answer_is_no, error);
    }
    if (!check_channels(folder, starts)) {
        return static_cast<int>(ExitStatus::answer_is_no);
    }
    if (!start_all(folder, program, starts, error)) {
        fail(ExitStatus::answer_is_no, error);
        stop_started(folder, starts);
        return static_cast<int>(ExitStatus::answer_is_no);
    }
    if (options.json) {
        std::vector<std::pair<std::string, std::int64_t>> processes;
        processes.reserve(starts.size());
        for (const Start& start : starts) {
            processes.emplace_back(start.channel->name, start.pid);
        }
        std::printf("%s\n", processes_json(processes).c_str());
    } else {
        std::printf("%zu channels are up: truth logs in %s/truth\n", starts.size(), options.folder.c_str());
    }
    return static_cast<int>(ExitStatus::ok);
}

int channels_stop(const ChannelsOptions& options) {
    ChannelList list;
    if (const int status = read_channels(options, list)) {
        return status;
    }
    const std::string folder = resolved_folder(options.folder);
    std::string error;
    if (!hold_folder(folder, error)) {
        return fail(ExitStatus::answer_is_no, error);
    }
    std::vector<Stopping> stopping;
    for (const Channel& channel : list) {
        stopping.push_back(begin_stop(folder, channel));
    }
    std::vector<std::pair<std::string, std::string>> results;
    ExitStatus status = ExitStatus::ok;
    std::size_t ended = 0;
    for (std::size_t at = 0; at < list.size(); ++at) {
        const pid_t pid = stopping[at].pid;
        const Stopped stopped = end_stop(folder, list[at], stopping[at], stop_max_ms);
        const char* const words[] = {"not running", "ended", "killed", "failed"};
        results.emplace_back(list[at].name, words[static_cast<std::size_t>(stopped)]);
        ended += stopped == Stopped::ended ? 1 : 0;
        if (stopped == Stopped::killed || stopped == Stopped::failed) {
            status = ExitStatus::answer_is_no;
            fail(status, list[at].name + ": pid " + std::to_string(pid) +
                             (stopped == Stopped::killed
                                  ? " did not end by itself and was killed: its truth log may be torn"
                                  : " does not end"));
        }
    }
    if (options.json) {
        std::printf("%s\n", stopped_json(results).c_str());
    } else {
        std::printf("%zu of %zu channels ended\n", ended, list.size());
    }
    return static_cast<int>(status);
}

}  // namespace tessel::ctl
