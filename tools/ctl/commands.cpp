#include "ctl/commands.h"

#include "common/control_commands.h"
#include "ctl/account.h"
#include "ctl/json_text.h"
#include "ctl/options.h"
#include "ctl/stats.h"

#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

namespace tessel::ctl {

namespace {

constexpr std::size_t file_bytes_max = std::size_t{64} << 20;
constexpr std::uint64_t lines_per_heading = 20;

int status_of(ExitStatus status) {
    return static_cast<int>(status);
}

int fail(ExitStatus status, const std::string& error) {
    std::fprintf(stderr, "tesselctl: %s\n", error.c_str());
    return status_of(status);
}

// Opens the control channel; the status to end with, or 0.
int open(const ControlOptions& control, ControlClient& client) {
    std::string error;
    if (!open_control(control.endpoint, control.timeout_ms, client, error)) {
        return fail(ExitStatus::asked_wrongly, "--control: " + error);
    }
    return 0;
}

// Asks for the statistics; the status to end with, or 0.
int ask_stats(ControlClient& client, std::string& reply, FeedCounters& stats) {
    std::string error;
    if (ask(client, "stats", reply, error) == Answer::nobody) {
        return fail(ExitStatus::nobody_answers, error);
    }
    if (!parse_stats(reply, stats)) {
        return fail(ExitStatus::answer_is_no,
                    client.endpoint + " answers, but not as a feed does: '" + reply.substr(0, 60) + "'");
    }
    return 0;
}

// Reads the file's end, where a summary is, when it is larger than what is kept.
bool read_end_of_file(const std::string& path, std::string& text, std::string& error) {
    std::FILE* const file = path == "-" ? stdin : std::fopen(path.c_str(), "re");
    if (file == nullptr) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    char block[65536];
    std::size_t length = 0;
    while ((length = std::fread(block, 1, sizeof block, file)) > 0) {
        text.append(block, length);
        if (text.size() > 2 * file_bytes_max) {
            text.erase(0, text.size() - file_bytes_max);
        }
    }
    const bool good = std::ferror(file) == 0;
    if (!good) {
        error = path + ": " + std::strerror(errno);
    }
    if (file != stdin) {
        std::fclose(file);
    }
    return good;
}

void print_rates(const FeedCounters& before, const FeedCounters& now, double seconds, std::uint64_t line) {
    if (line % lines_per_heading == 0) {
        std::printf("%12s %10s %10s %10s %10s %8s %8s %8s %8s\n", "next_seq", "msgs/s", "quotes/s",
                    "trades/s", "packets/s", "dropped", "twice", "reorder", "halts");
    }
    const auto rate = [seconds](std::uint64_t earlier, std::uint64_t later) {
        return later < earlier ? 0.0
                               : static_cast<double>(later - earlier) / seconds;  // it was started again
    };
    std::printf("%12llu %10.0f %10.0f %10.0f %10.0f %8llu %8llu %8llu %8llu\n",
                static_cast<unsigned long long>(now.next_sequence),
                rate(before.next_sequence, now.next_sequence),
                rate(counter(before, "quotes"), counter(now, "quotes")),
                rate(counter(before, "trades"), counter(now, "trades")), rate(before.sent, now.sent),
                static_cast<unsigned long long>(now.dropped), static_cast<unsigned long long>(now.duplicated),
                static_cast<unsigned long long>(now.reordered),
                static_cast<unsigned long long>(counter(now, "halts")));
}

int watch_stats(ControlClient& client, const StatsOptions& options, bool json) {
    using Clock = std::chrono::steady_clock;
    std::string reply;
    FeedCounters before;
    int status = ask_stats(client, reply, before);
    Clock::time_point asked = Clock::now();
    for (std::uint64_t line = 0; status == 0 && (options.count == 0 || line < options.count); ++line) {
        std::this_thread::sleep_for(std::chrono::duration<double>(options.interval_seconds));
        FeedCounters now;
        status = ask_stats(client, reply, now);
        if (status != 0) {
            break;
        }
        const Clock::time_point answered = Clock::now();
        if (json) {
            std::printf("%s\n", stats_json(now).c_str());
        } else {
            print_rates(before, now, std::chrono::duration<double>(answered - asked).count(), line);
        }
        if (std::fflush(stdout) != 0) {
            return fail(ExitStatus::asked_wrongly, std::string("standard output: ") + std::strerror(errno));
        }
        before = now;
        asked = answered;
    }
    return status;
}

}  // namespace

int control_command(const ControlOptions& control, const std::string& command) {
    std::string error;
    if (!common::check_control_command(command, error)) {
        return fail(ExitStatus::asked_wrongly, error);
    }
    return plain_command(control, command);
}

int plain_command(const ControlOptions& control, const std::string& command) {
    ControlClient client;
    std::string error;
    if (const int status = open(control, client)) {
        return status;
    }
    std::string reply;
    if (ask(client, command, reply, error) == Answer::nobody) {
        return fail(ExitStatus::nobody_answers, error);
    }
    std::printf("%s\n", control.json ? reply_json(command, reply).c_str() : reply.c_str());
    return status_of(reply.starts_with("err") ? ExitStatus::answer_is_no : ExitStatus::ok);
}

int show_stats(const ControlOptions& control, const StatsOptions& options) {
    ControlClient client;
    if (const int status = open(control, client)) {
        return status;
    }
    if (options.watch) {
        return watch_stats(client, options, control.json);
    }
    std::string reply;
    FeedCounters stats;
    if (const int status = ask_stats(client, reply, stats)) {
        return status;
    }
    std::printf("%s\n", control.json ? stats_json(stats).c_str() : reply.c_str());
    return status_of(ExitStatus::ok);
}

int script(const ControlOptions& control, const std::string& path, const ScriptOptions& options) {
    common::Timeline timeline;
    std::string error;
    if (!common::read_timeline(path, timeline, error)) {
        return fail(ExitStatus::asked_wrongly, error);
    }
    ControlClient client;
    if (const int status = open(control, client)) {
        return status;
    }
    // Before the first moment, so that a feed that is not there is noticed now and not in an hour.
    std::string reply;
    FeedCounters stats;
    if (const int status = ask_stats(client, reply, stats)) {
        return status;
    }
    return play_script(timeline, client, options);
}

int account(const ControlOptions& control, const AccountOptions& options) {
    std::int64_t received = options.received;
    std::int64_t damaged = -1;
    std::string text;
    std::string error;
    if (!options.listen_summary.empty()) {
        if (!read_end_of_file(options.listen_summary, text, error)) {
            return fail(ExitStatus::asked_wrongly, "--listen-summary: " + error);
        }
        received = received_of_summary(text);
        if (received < 0) {
            return fail(ExitStatus::asked_wrongly, "--listen-summary: " + options.listen_summary +
                                                       " has no line 'tessel-listen: N messages (...)'");
        }
    }
    if (!options.feed_log.empty()) {
        text.clear();
        if (!read_end_of_file(options.feed_log, text, error)) {
            return fail(ExitStatus::asked_wrongly, "--feed-log: " + error);
        }
        damaged = damaged_of_log(text);
    }
    ControlClient client;
    if (const int status = open(control, client)) {
        return status;
    }
    std::string reply;
    FeedCounters stats;
    if (const int status = ask_stats(client, reply, stats)) {
        return status;
    }
    const Account found = make_account(stats, damaged, received);
    std::printf("%s\n", control.json
                            ? account_json(found.sent, found.damaged, found.received, found.lost).c_str()
                            : account_text(found).c_str());
    if (!found.damage_exact) {
        std::fprintf(stderr,
                     "tesselctl: damaged on purpose is reckoned from %llu dropped packets of mean size; "
                     "--feed-log FILE, the feed's standard error, makes it exact\n",
                     static_cast<unsigned long long>(stats.dropped));
    }
    return status_of(ExitStatus::ok);
}

}  // namespace tessel::ctl
