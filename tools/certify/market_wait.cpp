#include "certify/market_wait.h"

#include "certify/file_text.h"
#include "certify/time_limits.h"

#include <poll.h>
#include <algorithm>

namespace tessel::certify {

namespace {

constexpr int wait_ms = 10;
constexpr double still_seconds = 0.4;   // without a new line: the handler has written all it has
constexpr double silence_seconds = 20;  // at most, beyond what the case says

// Takes what there is, and waits a moment for more.
void take_input(MarketRun& run) {
    std::vector<pollfd> waited;
    for (const HandlerRun& handler : run.handlers) {
        waited.push_back({handler.log_pipe, POLLIN, 0});
    }
    for (const Tap& tap : run.taps) {
        waited.push_back({tap.socket.fd, POLLIN, 0});
    }
    poll(waited.data(), waited.size(), wait_ms);
    for (HandlerRun& handler : run.handlers) {
        read_log(handler);
    }
    for (Tap& tap : run.taps) {
        read_tap(tap);
    }
    step_busy_client(run.busy);
    reap(run.reaped);
}

bool check_handler(MarketRun& run, const HandlerRun& handler) {
    const auto ended = run.reaped.statuses.find(handler.process);
    if (handler.process != 0 && !run.ending && ended != run.reaped.statuses.end()) {
        if (is_not_supported(ended->second)) {
            return fail_run(run, Verdict::skipped,
                            end_text(ended->second) + ": it does not support the case");
        }
        return fail_run(run, Verdict::fail, end_text(ended->second));
    }
    if (regular_file_bytes(handler.out_path) > output_bytes_max) {
        return fail_run(run, Verdict::fail, "handler wrote more than 8 GiB");
    }
    return true;
}

// False when something that should run does not.
bool check_processes(MarketRun& run) {
    for (const HandlerRun& handler : run.handlers) {
        if (!check_handler(run, handler)) {
            return false;
        }
    }
    for (const FeedRun& feed : run.feeds) {
        if (feed.process != 0 && has_ended(run.reaped, feed.process)) {
            return fail_run(run, Verdict::error, "the feed ended: " + last_words(feed));
        }
    }
    if (run.traffic != 0 && has_ended(run.reaped, run.traffic)) {
        return fail_run(run, Verdict::error, "the extra traffic ended: see traffic.log");
    }
    if (*run.stop != 0) {
        return fail_run(run, Verdict::error, "stopped");
    }
    return true;
}

std::uint64_t written_bytes(const MarketRun& run) {
    std::uint64_t bytes = 0;
    for (const HandlerRun& handler : run.handlers) {
        bytes += regular_file_bytes(handler.out_path);
    }
    return bytes;
}

}  // namespace

bool wait_for(MarketRun& run, double seconds, const std::function<bool()>& is_done) {
    const double end = steady_seconds() + seconds;
    for (;;) {
        take_input(run);
        if (!check_processes(run)) {
            return false;
        }
        if (is_done()) {
            return true;
        }
        if (steady_seconds() >= end) {
            return false;
        }
    }
}

bool wait_until(MarketRun& run, double moment) {
    wait_for(run, std::max(0.0, moment - steady_seconds()), [moment] { return steady_seconds() >= moment; });
    return run.problem.empty();
}

void wait_for_end(MarketRun& run, pid_t child, double seconds) {
    const double end = steady_seconds() + seconds;
    while (!has_ended(run.reaped, child) && steady_seconds() < end) {
        take_input(run);
    }
}

bool await_silence(MarketRun& run) {
    const double begin = steady_seconds();
    if (!wait_until(run, begin + run.each->expect.wait_seconds)) {
        return false;
    }
    const double limit = steady_seconds() + scaled(silence_seconds);
    std::uint64_t bytes = written_bytes(run);
    double changed = begin;
    while (steady_seconds() < limit && steady_seconds() < changed + still_seconds) {
        if (!wait_until(run, steady_seconds() + still_seconds / 4)) {
            return false;
        }
        const std::uint64_t now = written_bytes(run);
        changed = now != bytes ? steady_seconds() : changed;
        bytes = now;
    }
    return true;
}

}  // namespace tessel::certify
