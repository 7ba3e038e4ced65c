#include "judge/runs.h"

#include "judge/line_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

namespace tessel::judge {

namespace {

// How far the sequence must fall, to the run's first number or below, to begin a new run.
struct RestartRule {
    bool strictly_rising = false;  // the truth: no reordering, no repeats
    bool single_run = false;
    std::uint64_t fall = restart_fall;
};

bool restarts(const RestartRule& rule, const Run& run, std::uint64_t seq, bool mark) {
    if (rule.strictly_rising) {
        return mark ? seq < run.highest : seq <= run.highest;
    }
    if (rule.single_run || mark || seq >= run.highest) {
        return false;
    }
    const std::uint64_t fall = run.highest - seq;
    return fall > restart_fall_always || (seq <= run.first && fall >= rule.fall);
}

void count_line(Run& run, std::uint64_t seq, bool mark) {
    if (mark) {
        run.highest = std::max(run.highest, seq);
        return;
    }
    if (run.lines == 0) {
        run.first = seq;
        run.lowest = seq;
        run.highest = seq;
    }
    ++run.lines;
    run.lowest = std::min(run.lowest, seq);
    run.highest = std::max(run.highest, seq);
}

// The sequence number of a line and whether it is a mark, without taking the whole line apart where that can
// be spared.
bool read_sequence(std::string_view text, std::uint64_t& seq, bool& mark, std::string* error) {
    mark = false;
    if (peek_sequence(text, seq)) {
        return true;
    }
    Line line;
    if (!read_line(text, line, error)) {
        return false;
    }
    seq = line.seq;
    mark = line.mark;
    return true;
}

bool find_runs(LineSource& source, const RestartRule& rule, std::vector<Run>& runs, std::string* error) {
    const std::uint64_t end_offset = source.end_offset;
    std::string_view text;
    ReadResult result = ReadResult::line;
    while ((result = next_line(source, text, error)) == ReadResult::line) {
        std::uint64_t seq = 0;
        bool mark = false;
        std::string reason;
        if (!read_sequence(text, seq, mark, &reason)) {
            *error = fmt::format("{}:{}: {}", source.path, source.line_number, reason);
            return false;
        }
        if (runs.empty() || restarts(rule, runs.back(), seq, mark)) {
            if (runs.size() == runs_max) {
                *error = fmt::format("{}:{}: the sequence starts again for the {}th time", source.path,
                                     source.line_number, runs_max);
                return false;
            }
            Run run;
            run.offset = line_offset(source, text);
            run.line_number = source.line_number;
            if (!runs.empty()) {
                runs.back().end_offset = run.offset;
            }
            runs.push_back(run);
        }
        count_line(runs.back(), seq, mark);
    }
    if (!runs.empty()) {
        runs.back().end_offset = end_offset;
    }
    // Marks alone are no run: nothing in them can be compared.
    std::erase_if(runs, [](const Run& run) { return run.lines == 0; });
    return result == ReadResult::end;
}

}  // namespace

bool find_truth_runs(LineSource& source, std::vector<Run>& runs, std::string* error) {
    RestartRule rule;
    rule.strictly_rising = true;
    return find_runs(source, rule, runs, error);
}

bool find_output_runs(LineSource& source, const std::vector<Run>& truth, std::vector<Run>& runs,
                      std::string* error) {
    RestartRule rule;
    rule.single_run = truth.size() < 2;
    for (const Run& run : truth) {
        rule.fall = std::min(rule.fall, (run.highest - run.lowest) / 2 + 1);
    }
    return find_runs(source, rule, runs, error);
}

}  // namespace tessel::judge
