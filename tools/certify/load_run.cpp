#include "certify/load_run.h"

#include "certify/case_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace tessel::certify {

namespace {

constexpr double run_seconds = 2;
// What a tick makes of one instrument, and how many ticks there are in a second with an interval of 10 ms,
// which the feed's loop rounds up to its next pass: docs/options.md.
constexpr double messages_a_step = 2.98;
constexpr double ticks_a_second = 95;
constexpr int interval_ms = 10;
// A feed that stays below this part of the rate that was asked for is at its own limit.
constexpr double reached_part = 0.8;
constexpr int bisections_max = 5;
constexpr double bisection_part = 1.1;  // rates closer than this are not told apart

struct LoadState {
    const CaseJob& job;
    const volatile int& stop;
    CaseResult& result;
    std::uint64_t best = 0;            // the highest rate without loss
    std::uint64_t worst = UINT64_MAX;  // the lowest with loss
    bool at_limit = false;             // the feed gives no more
    bool over = false;
};

void add_totals(const CaseResult& part, CaseResult& whole) {
    whole.truth_lines += part.truth_lines;
    whole.matched += part.matched;
    whole.mismatched += part.mismatched;
    whole.missing += part.missing;
    whole.unexpected += part.unexpected;
}

void take_evidence(CaseResult& part, CaseResult& whole) {
    if (whole.findings.empty() && whole.examples.empty()) {
        whole.findings = std::move(part.findings);
        whole.examples = std::move(part.examples);
    }
    whole.log_tail = part.log_tail;
}

// Runs one rate. Everything but missing lines ends the case.
void run_rate(LoadState& state, std::uint64_t rate) {
    CaseResult part;
    const Case each = case_of_rate(*state.job.each, rate);
    const double measured = play_and_judge(state.job, each, state.stop, part);
    const auto reached = static_cast<std::uint64_t>(std::llround(std::max(0.0, measured)));
    const bool only_missing = part.verdict == Verdict::fail && part.missing != 0 && part.truth_lines != 0;
    add_totals(part, state.result);
    if (part.verdict != Verdict::pass) {
        take_evidence(part, state.result);
    }
    if (part.verdict != Verdict::pass && !only_missing) {
        state.result.verdict = part.verdict;
        state.result.reason = fmt::format("at {} messages a second: {}", rate, part.reason);
        state.over = true;
        return;
    }
    state.result.curve.push_back({reached, part.missing});
    if (part.missing == 0) {
        state.best = std::max(state.best, reached);
    } else {
        state.worst = std::min(state.worst, rate);
    }
    state.at_limit = static_cast<double>(reached) < reached_part * static_cast<double>(rate);
    if (rate == state.job.each->load.pass_rate && part.missing != 0) {
        state.result.verdict = Verdict::fail;
        state.result.reason = fmt::format("{} lines missing at {} messages a second, which is to be done",
                                          part.missing, reached);
    }
}

void bisect(LoadState& state) {
    for (int count = 0; count != bisections_max && !state.over && state.best != 0; ++count) {
        if (state.worst == UINT64_MAX ||
            static_cast<double>(state.worst) < bisection_part * static_cast<double>(state.best)) {
            return;
        }
        run_rate(state, state.best + (state.worst - state.best) / 2);
    }
}

}  // namespace

Case case_of_rate(const Case& each, std::uint64_t rate) {
    Case out = each;
    const double symbols = static_cast<double>(rate) / (messages_a_step * ticks_a_second);
    out.generated_symbols = static_cast<unsigned>(
        std::clamp(std::round(symbols), 1.0, static_cast<double>(generated_symbols_max)));
    out.feed_options.emplace_back("--interval-ms");
    out.feed_options.push_back(std::to_string(interval_ms));
    out.seconds = run_seconds;
    return out;
}

void run_load(const CaseJob& job, const volatile int& stop, CaseResult& result) {
    LoadState state{job, stop, result};
    result.verdict = Verdict::pass;
    std::vector<std::uint64_t> rates = job.each->load.rates;
    const std::uint64_t wanted = job.each->load.pass_rate;
    if (wanted != 0 && std::find(rates.begin(), rates.end(), wanted) == rates.end()) {
        rates.push_back(wanted);
        std::sort(rates.begin(), rates.end());
    }
    for (const std::uint64_t rate : rates) {
        run_rate(state, rate);
        // Beyond its limit the feed gives the same rate again; after two losses the curve is known.
        if (state.over || state.at_limit) {
            break;
        }
    }
    if (job.each->load.bisect && !state.over) {
        bisect(state);
    }
    std::sort(result.curve.begin(), result.curve.end(),
              [](const LoadPoint& left, const LoadPoint& right) { return left.rate < right.rate; });
    result.highest_rate = state.best;
    if (state.at_limit && result.verdict == Verdict::pass) {
        result.reason = "the feed gives no more than that on this machine";
    }
}

}  // namespace tessel::certify
