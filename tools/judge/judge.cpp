#include "judge/judge.h"

#include "judge/findings.h"
#include "judge/matcher.h"
#include "judge/run_choice.h"
#include "judge/workers.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <exception>
#include <thread>
#include <utility>

namespace tessel::judge {

namespace {

// The runs of both files as far as they are judged.
struct JudgedRuns {
    std::size_t first_truth_run = 1;  // the number of truth.runs[0] in the file
    FileRuns truth;
    FileRuns output;
};

// Which run of the truth is judged with which of OUTPUT, in OUTPUT's order: from the end.
std::vector<RunResult> pair_runs(const JudgedRuns& runs) {
    std::vector<RunResult> pairs;
    const std::vector<Run>& truth = runs.truth.runs;
    const std::vector<Run>& output = runs.output.runs;
    const std::size_t count = std::max<std::size_t>(output.size(), 1);
    for (std::size_t index = 0; index != count; ++index) {
        const std::size_t from_end = count - index;
        RunResult pair;
        if (from_end <= truth.size()) {
            pair.truth_run = runs.first_truth_run + truth.size() - from_end;
            pair.truth = truth[truth.size() - from_end];
        }
        if (!output.empty()) {
            pair.output = output[index];
        }
        pairs.push_back(std::move(pair));
    }
    return pairs;
}

// Pairs the truth's only run with the one of OUTPUT's runs that belongs to it. The same run again is
// unexpected.
bool pair_chosen_run(const JudgedRuns& runs, LineSource& truth, LineSource& output, Result& result,
                     std::string& error) {
    RunChoice choice;
    if (!choose_run(truth, runs.truth.runs[0], output, runs.output.runs, choice, error)) {
        return false;
    }
    for (const std::size_t index : choice.repeats) {
        RunResult repeat;
        repeat.is_repeat = true;
        repeat.output = runs.output.runs[index];
        result.runs.push_back(std::move(repeat));
    }
    RunResult pair;
    pair.truth_run = runs.first_truth_run;
    pair.truth = runs.truth.runs[0];
    pair.output = runs.output.runs[choice.judged];
    result.runs.push_back(std::move(pair));
    result.output_run = choice.judged + 1;
    result.output_runs_not_judged = runs.output.runs.size() - result.runs.size();
    return true;
}

// The number of pieces that a run's chart has.
std::size_t bucket_count(const Run& truth) {
    const std::uint64_t span = truth.highest - truth.lowest;
    return span < buckets_per_run ? static_cast<std::size_t>(span) + 1 : buckets_per_run;
}

// Gives the first runs a chart, and each the numbers of its torn lines.
void prepare_runs(const JudgedRuns& runs, Result& result) {
    std::size_t charted = 0;
    for (RunResult& run : result.runs) {
        if (run.truth_run == 0) {
            continue;
        }
        if (charted++ < charted_runs_max) {
            run.buckets.resize(bucket_count(run.truth));
        }
        for (const TornLine& torn : runs.truth.torn) {
            if (torn.run + 1 == run.truth_run && torn.seq != 0) {
                run.torn_numbers.push_back(torn.seq);
            }
        }
    }
}

void name_torn_lines(const std::string& file, const FileRuns& found, Result& result) {
    for (const TornLine& torn : found.torn) {
        result.torn_lines.push_back({file, torn});
    }
}

// Leaves only the run asked for, if one is.
bool select_run(const Options& options, const LineSource& truth, JudgedRuns& runs, std::string& error) {
    if (runs.truth.runs.empty()) {
        error = fmt::format("{}:1: no truth line in the file", truth.input.name);
        return false;
    }
    if (options.run > runs.truth.runs.size()) {
        error = fmt::format("{}: no run {}, the file has {}", truth.input.name, options.run,
                            runs.truth.runs.size());
        return false;
    }
    if (options.run != 0) {
        runs.first_truth_run = options.run;
        runs.truth.runs = {runs.truth.runs[options.run - 1]};
    }
    return true;
}

// Scans OUTPUT in a second thread while the truth is scanned.
struct OutputScan {
    SingleRun single;
    std::string error;
    bool good = false;
};

void scan_output(LineSource& output, OutputScan& scan) {
    try {
        scan.good = scan_single_run(output, scan.single, scan.error);
    } catch (const std::exception& fault) {  // no memory
        scan.error = fault.what();
    }
}

bool find_runs(const Options& options, LineSource& truth, LineSource& output, JudgedRuns& runs,
               Result& result, std::string& error) {
    if (!start_source(truth, error) || !start_source(output, error)) {
        return false;
    }
    OutputScan scan;
    bool good = false;
    if (options.jobs > 1) {
        std::thread thread([&] { scan_output(output, scan); });
        good = find_truth_runs(truth, runs.truth, error);
        thread.join();
    } else {
        good = find_truth_runs(truth, runs.truth, error);
        scan.single.possible = false;
        scan.good = true;
    }
    result.truth_runs = runs.truth.runs.size();
    if (!good || !select_run(options, truth, runs, error)) {
        return false;
    }
    if (!scan.good) {
        error = scan.error;
        return false;
    }
    if (is_single_run(scan.single, runs.truth.runs)) {
        runs.output = std::move(scan.single.found);
    } else if (!start_source(output, error) ||
               !find_output_runs(output, runs.truth.runs, runs.output, error)) {
        return false;
    }
    result.output_runs = runs.output.runs.size();
    name_torn_lines(truth.input.name, runs.truth, result);
    name_torn_lines(output.input.name, runs.output, result);
    return true;
}

}  // namespace

bool judge(const Options& options, Result& result, std::string& error) {
    LineSource truth;
    LineSource output;
    const std::array<Input*, 2> inputs = {&truth.input, &output.input};
    return open_input(truth.input, options.truth_path, error) &&
           open_input(output.input, options.output_path, error) && copy_pipes(inputs, error) &&
           judge_sources(options, truth, output, result, error);
}

bool judge_sources(const Options& options, LineSource& truth, LineSource& output, Result& result,
                   std::string& error) {
    JudgedRuns runs;
    if (!find_runs(options, truth, output, runs, result, error)) {
        return false;
    }
    if (runs.truth.runs.size() != 1 || runs.output.runs.size() < 2) {
        result.runs = pair_runs(runs);
    } else if (!pair_chosen_run(runs, truth, output, result, error)) {
        return false;
    }
    prepare_runs(runs, result);

    Findings findings;
    findings.result = &result;
    Workers workers;
    Matcher matcher;
    matcher.options = &options;
    matcher.truth = &truth;
    matcher.output = &output;
    matcher.result = &result;
    matcher.workers = &workers;
    matcher.findings = &findings;
    TimesFile times;
    if (!options.latency_members.empty()) {
        if (!open_times(times, options.times_path, runs.truth.runs, error)) {
            return false;
        }
        matcher.times = &times;
        result.latencies.resize(options.latency_members.size());
        for (std::size_t member = 0; member != options.latency_members.size(); ++member) {
            result.latencies[member].name = options.latency_members[member];
        }
    }
    start_workers(workers, options.jobs);
    for (RunResult& run : result.runs) {
        if (!judge_run(matcher, run)) {
            error = matcher.error;
            return false;
        }
        add_totals(result.totals, run.totals);
    }
    return true;
}

Verdict verdict(const Result& result) {
    const Totals& totals = result.totals;
    if (!result.known_members && !result.unknown_members.empty()) {
        return Verdict::nothing_compared;
    }
    return totals.mismatched + totals.missing + totals.unexpected == 0 ? Verdict::agrees : Verdict::differs;
}

}  // namespace tessel::judge
