#include "certify/case_run.h"

#include "certify/differences.h"
#include "certify/file_text.h"
#include "certify/judging.h"
#include "certify/kept_files.h"
#include "certify/load_run.h"
#include "certify/market_run.h"
#include "certify/time_limits.h"

#include <fmt/format.h>

namespace tessel::certify {

namespace {

JudgeInput judge_input(const MarketRun& run, std::size_t index) {
    JudgeInput input;
    input.truth_path = run.feeds[index].truth_path;
    input.out_path = run.handlers[index].out_path;
    input.folder = run.folder;
    input.expect = run.each->expect;
    input.expect.from_first = input.expect.from_first || run.each->start == Start::late;
    for (std::size_t part = 0; part != run.feeds[index].log_offsets.size(); ++part) {
        input.dropped.push_back(dropped_ranges(run.feeds[index], part));
    }
    return input;
}

void add_totals(const judge::Totals& totals, CaseResult& result) {
    result.truth_lines += totals.truth_lines;
    result.matched += totals.matched;
    result.mismatched += totals.mismatched;
    result.missing += totals.missing;
    result.unexpected += totals.unexpected;
}

// Judges each handler by its feed; the first that is wrong gives the reason.
void judge_market(MarketRun& run, CaseResult& result) {
    for (std::size_t index = 0; index != run.feeds.size(); ++index) {
        const JudgeInput input = judge_input(run, index);
        const Judgment judgment = judge_output(input);
        add_totals(judgment.result.totals, result);
        if (!judgment.good) {
            const std::string which = run.feeds.size() > 1 ? fmt::format("feed {}: ", index + 1) : "";
            fail_run(run, Verdict::fail, which + judgment.reason);
            find_differences(input, judgment, run.feeds[index].endpoints, result);
        }
    }
}

}  // namespace

double play_and_judge(const CaseJob& job, const Case& each, const volatile int& stop, CaseResult& result) {
    MarketRun run;
    run.job = &job;
    run.each = &each;
    run.stop = &stop;
    run.folder = job.folder;
    if (play_market(run)) {
        judge_market(run, result);
    }
    end_market(run);
    result.verdict = run.verdict;
    result.reason = run.problem;
    if (result.verdict != Verdict::pass && !run.handlers.empty()) {
        result.log_tail = run.handlers[0].log_tail;
    }
    return run.measured_rate;
}

CaseResult run_case(const CaseJob& job, const volatile int& stop) {
    CaseResult result;
    result.handler = job.handler.name;
    result.name = job.each->name;
    result.group = job.each->group;
    result.title = job.each->title;
    result.seed = job.seed;
    result.command = job.command;
    const double start = steady_seconds();
    if (job.each->load.rates.empty()) {
        play_and_judge(job, *job.each, stop, result);
    } else {
        run_load(job, stop, result);
    }
    result.seconds = steady_seconds() - start;
    if (result.verdict == Verdict::fail || result.verdict == Verdict::error) {
        keep_files(job, result);
    }
    return result;
}

double expected_seconds(const Case& each) {
    constexpr double overhead = 1.5;  // starts and ends
    const double late = each.start == Start::late ? each.late_after : 0;
    const double plain = overhead + late + each.seconds + each.expect.wait_seconds;
    return each.load.rates.empty() ? plain : plain * static_cast<double>(each.load.rates.size() + 4);
}

}  // namespace tessel::certify
