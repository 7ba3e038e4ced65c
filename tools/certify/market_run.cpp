#include "certify/market_run.h"

#include "certify/file_text.h"
#include "certify/handler_end.h"
#include "certify/market_wait.h"
#include "certify/time_limits.h"
#include "ctl/script_player.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstdio>

namespace tessel::certify {

namespace {

constexpr double feed_start_seconds = 30;
constexpr double traffic_start_seconds = 30;
constexpr double traffic_end_seconds = 2;
constexpr double player_seconds = 30;  // beyond the run's end, on a machine that is slow
constexpr std::string_view session_first = "UTPBENCH01";

std::string numbered(const MarketRun& run, const char* name, const char* ending, std::size_t index) {
    return run.folder + "/" + name + (index == 0 ? "" : std::to_string(index + 1)) + ending;
}

std::string session_of(const Case& each, std::size_t index) {
    return index == 0 || each.same_session ? std::string(session_first)
                                           : fmt::format("UTPBENCH{:02}", index + 1);
}

// In a child: what it prints goes to that file.
void log_to(const std::string& path) {
    const int log = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    close(log);
}

bool choose_addresses(MarketRun& run) {
    std::string error;
    std::uint16_t shared = 0;
    for (unsigned index = 0; index != run.each->feeds; ++index) {
        FeedRun feed;
        feed.endpoints.session = session_of(*run.each, index);
        feed.truth_path = numbered(run, "truth", ".jsonl", index);
        feed.log_path = numbered(run, "feed", ".log", index);
        if (!lease_feed(feed, run.leases, shared, error)) {
            return fail_run(run, Verdict::error, error);
        }
        shared = feed.endpoints.port;
        feed.scenario = run.each->scenario;
        feed.words = feed_words(*run.each, feed, run.job->feed_program,
                                feed_seed(run.job->seed, run.each->name) + index);
        run.handler_ends.push_back(feed.endpoints);
        run.feeds.push_back(std::move(feed));
    }
    return true;
}

// Where traffic is between, the handler is given its own addresses.
bool choose_handler_ends(MarketRun& run) {
    if (!is_between(run.each->traffic)) {
        return true;
    }
    std::string error;
    FeedRun before;  // its addresses are what is wanted of it
    if (!lease_feed(before, run.leases, 0, error)) {
        return fail_run(run, Verdict::error, error);
    }
    before.endpoints.session = run.feeds[0].endpoints.session;
    run.handler_ends[0] = before.endpoints;
    return true;
}

// Runs the extra traffic of the first feed in a separate process, and waits until it is ready.
bool start_traffic(MarketRun& run) {
    if (run.each->traffic.empty()) {
        return true;
    }
    int ends[2];
    std::string error;
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        return fail_run(run, Verdict::error, "there are no descriptors left");
    }
    run.traffic = fork_child(SIGKILL, error);
    if (run.traffic < 0) {
        run.traffic = 0;
        return fail_run(run, Verdict::error, error);
    }
    if (run.traffic == 0) {
        default_signals();
        log_to(run.folder + "/traffic.log");
        close(ends[0]);
        _exit(run_traffic(run.each->traffic, run.feeds[0].endpoints, run.handler_ends[0], ends[1]));
    }
    close(ends[1]);
    char byte = 0;
    const bool ready =
        wait_for(run, scaled(traffic_start_seconds), [&] { return read(ends[0], &byte, 1) == 1; });
    close(ends[0]);
    return ready || fail_run(run, Verdict::error, "the extra traffic does not start: see traffic.log");
}

bool open_taps(MarketRun& run) {
    if (!run.each->load.rates.empty()) {
        return true;  // a capture would take from the rate that is measured
    }
    run.taps.resize(run.feeds.size());
    for (std::size_t index = 0; index != run.taps.size(); ++index) {
        std::string error;
        if (!open_tap(run.taps[index], run.handler_ends[index], numbered(run, "feed", ".pcap", index),
                      error)) {
            return fail_run(run, Verdict::error, "no capture: " + error);
        }
    }
    return true;
}

void prepare_handler(MarketRun& run, std::size_t index) {
    const Options& options = *run.job->options;
    HandlerRun handler;
    handler.out_path = numbered(run, "out", ".jsonl", index);
    handler.log_path = numbered(run, "handler", ".log", index);
    handler.case_name = run.each->name;
    handler.values = handler_values(run.handler_ends[index], handler.out_path);
    const std::string late =
        run.each->start == Start::late ? fill_placeholders(options.late_arg, handler.values) : "";
    handler.values.emplace_back("late", late);
    handler.command = fill_placeholders(run.job->handler.command, handler.values);
    handler.ready = options.ready;
    handler.ready.text = fill_placeholders(options.ready.text, handler.values);
    run.handlers.push_back(std::move(handler));
}

bool start_handlers(MarketRun& run) {
    for (std::size_t index = 0; index != run.feeds.size(); ++index) {
        prepare_handler(run, index);
    }
    for (HandlerRun& handler : run.handlers) {
        std::string error;
        if (!start_handler(handler, error)) {
            return fail_run(run, Verdict::error, error);
        }
    }
    return true;
}

bool all_ready(const MarketRun& run) {
    return std::all_of(run.handlers.begin(), run.handlers.end(), is_handler_ready);
}

bool await_handlers(MarketRun& run, double timeout) {
    const double delay = run.job->options->ready.seconds;  // of Ready::delay, which is no limit
    if (wait_for(run, scaled(timeout) + delay, [&] { return all_ready(run); })) {
        return true;
    }
    return fail_run(
        run, Verdict::fail,
        fmt::format("handler did not get ready within {:g} s", run.job->options->ready_timeout_seconds));
}

bool start_one_feed(MarketRun& run, FeedRun& feed) {
    std::string error;
    if (!start_feed(feed, error)) {
        return fail_run(run, Verdict::error, "the feed cannot be started: " + error);
    }
    if (!wait_for(run, scaled(feed_start_seconds), [&] { return is_feed_ready(feed); })) {
        return fail_run(run, Verdict::error, "the feed does not start: " + last_words(feed));
    }
    return true;
}

// Plays the timeline against a feed in a separate process; what it does goes to traffic.log.
void start_player(MarketRun& run, const FeedRun& feed) {
    std::string error;
    const pid_t child = fork_child(SIGKILL, error);
    if (child != 0) {
        run.players.push_back(std::max(child, 0));
        return;
    }
    default_signals();
    log_to(run.folder + "/traffic.log");
    constexpr int reply_ms = 5'000;
    ctl::ControlClient client;
    int status = 1;
    if (ctl::open_control(feed.control, reply_ms, client, error)) {
        status = ctl::play_script(run.each->timeline, client, {});
    }
    std::fflush(stdout);
    _exit(status);
}

bool start_feeds(MarketRun& run) {
    for (FeedRun& feed : run.feeds) {
        if (!start_one_feed(run, feed)) {
            return false;
        }
        if (!common::all_played(run.each->timeline, {})) {
            start_player(run, feed);
        }
    }
    return true;
}

bool restart_feed(MarketRun& run, FeedRun& feed) {
    stop_feed(feed, run.reaped);
    // Another market than before, as after a real restart.
    constexpr std::uint64_t next_run = 1'000'003;
    const auto seed = std::find(feed.words.begin(), feed.words.end(), "--seed") + 1;
    *seed = std::to_string(std::stoull(*seed) + next_run);
    return start_one_feed(run, feed);
}

// Lets the market run until `until`, with the restarts that fall into that time.
bool run_until(MarketRun& run, double feed_start, double until, std::size_t& restarted) {
    const std::vector<double>& restarts = run.each->restart_at;
    while (restarted < restarts.size() && feed_start + restarts[restarted] < until) {
        if (!wait_until(run, feed_start + restarts[restarted])) {
            return false;
        }
        ++restarted;
        for (FeedRun& feed : run.feeds) {
            if (!restart_feed(run, feed)) {
                return false;
            }
        }
    }
    return wait_until(run, until);
}

// The timelines are played to their ends: on a slow machine that may be after the time of the run.
bool await_players(MarketRun& run) {
    for (const pid_t player : run.players) {
        if (!wait_for(run, scaled(player_seconds), [&] { return has_ended(run.reaped, player); })) {
            return fail_run(run, Verdict::error, "the timeline was not played to its end");
        }
        const int status = run.reaped.statuses[player];
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            return fail_run(run, Verdict::error, "the feed refused a line of the timeline: see traffic.log");
        }
    }
    return true;
}

bool hold_snapshot_service(MarketRun& run) {
    std::string error;
    if (run.each->busy_seconds > 0 &&
        !hold_service(run.busy, run.feeds[0].endpoints.snapshot, run.each->busy_seconds, error)) {
        return fail_run(run, Verdict::error, error);
    }
    return true;
}

std::uint64_t next_sequence(MarketRun& run) {
    ctl::FeedCounters counters;
    return ask_stats(run.feeds[0], counters) ? counters.next_sequence : 0;
}

// The market's time: from the feed's start, or from that of a handler that joins late.
bool run_market(MarketRun& run) {
    const Case& each = *run.each;
    std::size_t restarted = 0;
    if (each.start == Start::before) {
        if (!start_handlers(run) || !await_handlers(run, run.job->options->ready_timeout_seconds) ||
            !start_feeds(run) || !hold_snapshot_service(run)) {
            return false;
        }
        const double start = steady_seconds();
        const std::uint64_t first = next_sequence(run);
        if (!run_until(run, start, start + each.seconds, restarted)) {
            return false;
        }
        run.measured_rate = static_cast<double>(next_sequence(run) - first) / (steady_seconds() - start);
        return true;
    }
    if (!start_feeds(run)) {
        return false;
    }
    const double start = steady_seconds();
    if (!run_until(run, start, start + each.late_after, restarted) || !hold_snapshot_service(run) ||
        !start_handlers(run)) {
        return false;
    }
    const double joined = steady_seconds();
    return run_until(run, start, joined + each.seconds, restarted) &&
           await_handlers(run, std::max(0.1, run.job->options->ready_timeout_seconds - each.seconds));
}

bool freeze(MarketRun& run) {
    for (FeedRun& feed : run.feeds) {
        std::string reply;
        std::string error;
        if (ctl::ask(feed.client, "rate -1", reply, error) != ctl::Answer::reply) {
            return fail_run(run, Verdict::error, error);
        }
    }
    return true;
}

}  // namespace

bool fail_run(MarketRun& run, Verdict verdict, const std::string& reason) {
    if (run.problem.empty()) {
        run.verdict = verdict;
        run.problem = reason;
    }
    return false;
}

bool play_market(MarketRun& run) {
    return choose_addresses(run) && choose_handler_ends(run) && open_taps(run) && start_traffic(run) &&
           run_market(run) && await_players(run) && freeze(run) && await_silence(run) && end_handlers(run);
}

void end_market(MarketRun& run) {
    run.ending = true;
    kill_handlers(run);
    if (run.traffic != 0) {
        kill(run.traffic, SIGTERM);  // it writes what it did
        wait_for_end(run, run.traffic, scaled(traffic_end_seconds));
    }
    for (FeedRun& feed : run.feeds) {
        stop_feed(feed, run.reaped);
        if (feed.client.fd >= 0) {
            close(feed.client.fd);
        }
    }
    kill_descendants(run.reaped, {});
    for (HandlerRun& handler : run.handlers) {
        close_log(handler);
    }
    for (Tap& tap : run.taps) {
        close_tap(tap);
    }
    if (run.busy.fd >= 0) {
        close(run.busy.fd);
    }
    release(run.leases);
}

}  // namespace tessel::certify
