#include "certify/handler_end.h"

#include "certify/market_wait.h"
#include "certify/time_limits.h"

#include <algorithm>
#include <csignal>

namespace tessel::certify {

namespace {

constexpr double interrupt_seconds = 5;
constexpr double terminate_seconds = 2;

bool is_gone(const MarketRun& run, const HandlerRun& handler) {
    return handler.process == 0 ||
           (has_ended(run.reaped, handler.process) && !group_is_there(handler.process));
}

bool all_gone(const MarketRun& run) {
    return std::all_of(run.handlers.begin(), run.handlers.end(),
                       [&](const HandlerRun& handler) { return is_gone(run, handler); });
}

void signal_handlers(const MarketRun& run, int number) {
    for (const HandlerRun& handler : run.handlers) {
        if (!is_gone(run, handler)) {
            kill(-handler.process, number);
        }
    }
}

// The handlers' statuses after an end that was asked for.
bool check_statuses(MarketRun& run) {
    for (const HandlerRun& handler : run.handlers) {
        const auto ended = run.reaped.statuses.find(handler.process);
        if (ended == run.reaped.statuses.end()) {
            continue;
        }
        if (is_not_supported(ended->second)) {
            return fail_run(run, Verdict::skipped,
                            end_text(ended->second) + ": it does not support the case");
        }
        if (is_crash(ended->second)) {
            return fail_run(run, Verdict::fail, end_text(ended->second));
        }
    }
    return true;
}

}  // namespace

bool end_handlers(MarketRun& run) {
    run.ending = true;
    const auto gone = [&] { return all_gone(run); };
    signal_handlers(run, SIGINT);
    if (!wait_for(run, scaled(interrupt_seconds), gone) && run.problem.empty()) {
        signal_handlers(run, SIGTERM);
        wait_for(run, scaled(terminate_seconds), gone);
    }
    const bool ended = all_gone(run);
    kill_handlers(run);
    if (!ended) {
        return fail_run(run, Verdict::fail, "handler did not end within 5 s of SIGINT");
    }
    return check_statuses(run) && run.problem.empty();
}

void kill_handlers(MarketRun& run) {
    signal_handlers(run, SIGKILL);
    std::vector<pid_t> kept = run.players;
    kept.push_back(run.traffic);
    for (const FeedRun& feed : run.feeds) {
        kept.push_back(feed.process);
    }
    kill_descendants(run.reaped, kept);
}

}  // namespace tessel::certify
