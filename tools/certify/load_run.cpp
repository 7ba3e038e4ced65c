#include "certify/load_run.h"

#include "certify/case_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace tessel::certify {

namespace {

// What a tick makes of one instrument, and how many ticks there are in a second with an interval of 10 ms,
// which the feed's loop rounds up to its next pass: docs/options.md.
constexpr double messages_a_step = 2.98;
constexpr double ticks_a_second = 95;
constexpr int interval_ms = 10;
// A feed that stays below this part of the rate that was asked for, and gives no more than at a lower one, is
// at its own limit.
constexpr double reached_part = 0.8;
constexpr int bisections_max = 5;
constexpr unsigned losses_max = 2;
constexpr double bisection_part = 1.1;  // rates closer than this are not told apart

struct LoadState {
    const CaseJob& job;
    const volatile int& stop;
    CaseResult& result;
    std::uint64_t best = 0;            // the highest rate without loss
    std::uint64_t worst = UINT64_MAX;  // the lowest with loss
    std::uint64_t reached_before = 0;  // the highest rate that the feed gave so far
    unsigned losses = 0;               // rates with loss
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
        ++state.losses;
    }
    state.at_limit =
        state.reached_before != 0 &&
        static_cast<double>(reached) < reached_part * static_cast<double>(rate) &&
        static_cast<double>(reached) < bisection_part * static_cast<double>(state.reached_before);
    state.reached_before = std::max(state.reached_before, reached);
    const std::uint64_t wanted = state.job.each->load.pass_rate;
    if (rate <= wanted && part.missing != 0 && state.result.verdict == Verdict::pass) {
        state.result.verdict = Verdict::fail;
        state.result.reason = fmt::format("{} lines missing at {} messages a second; {} are to be done",
                                          part.missing, reached, wanted);
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
        // Beyond its limit the feed gives the same rate again; after two losses the curve goes on as it
        // began.
        if (state.over || state.at_limit || state.losses == losses_max) {
            break;
        }
    }
    if (job.each->load.bisect && !state.over) {
        bisect(state);
    }
    std::sort(result.curve.begin(), result.curve.end(),
              [](const LoadPoint& left, const LoadPoint& right) { return left.rate < right.rate; });
    result.highest_rate = state.best;
    if (state.at_limit) {
        result.note = fmt::format(
            "the feed gives no more than {} messages a second on this machine, so no higher "
            "rate was tried",
            result.curve.empty() ? 0 : result.curve.back().rate);
    }
}

}  // namespace tessel::certify
