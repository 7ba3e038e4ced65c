#include "judge/runs.h"

#include "judge/record_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

namespace tessel::judge {

namespace {

Run run_starting_at(const LineSource& source, const Record& record) {
    Run run;
    run.offset = line_offset(source, record.text);
    run.line_number = record.line_number;
    return run;
}

void count_line(Run& run, std::uint64_t seq) {
    if (run.lines == 0) {
        run.first = seq;
        run.lowest = seq;
        run.highest = seq;
    }
    ++run.lines;
    run.lowest = std::min(run.lowest, seq);
    run.highest = std::max(run.highest, seq);
}

// Ends the run before at `end_offset` and begins another; false at the limit.
bool begin_run(FileRuns& found, const Run& run, std::uint64_t end_offset, const LineSource& source,
               std::string& error) {
    if (found.runs.size() == runs_max) {
        error = fmt::format("{}:{}: the sequence starts again for the {}th time", source.input.name,
                            run.line_number, runs_max);
        return false;
    }
    if (!found.runs.empty()) {
        found.runs.back().end_offset = end_offset;
    }
    found.runs.push_back(run);
    return true;
}

void note_torn(FileRuns& found, const Record& record) {
    if (record.torn_bytes != 0 && found.torn.size() < torn_lines_max) {
        const std::size_t run = found.runs.empty() ? 0 : found.runs.size() - 1;
        found.torn.push_back({record.line_number, record.torn_bytes, record.torn_seq, run});
    }
}

// Ends the last run with the file. Marks alone are no run: nothing in them can be compared.
void end_runs(FileRuns& found, const LineSource& source) {
    if (!found.runs.empty()) {
        found.runs.back().end_offset = source.end_offset;
    }
    std::erase_if(found.runs, [](const Run& run) { return run.lines + run.outside == 0; });
}

// How far OUTPUT's sequence must fall for a new run to be possible.
std::uint64_t least_fall(const std::vector<Run>& truth) {
    std::uint64_t least = restart_fall;
    for (const Run& run : truth) {
        least = std::min(least, (run.highest - run.lowest) / 2 + 1);
    }
    return least;
}

std::uint64_t highest_of(const std::vector<Run>& truth) {
    std::uint64_t highest = 0;
    for (const Run& run : truth) {
        highest = std::max(highest, run.highest);
    }
    return highest;
}

// A fall of the sequence in OUTPUT that may be the beginning of a run: the lines from it on, until they
// decide.
struct Candidate {
    bool open = false;
    Run run;
    std::uint64_t end_offset_before = 0;  // where the run before would end
    std::uint64_t repeated = 0;           // of its lines, numbers that the run before had already
    std::vector<std::uint64_t> recent;    // the last numbers of the run before, sorted
};

struct OutputScan {
    FileRuns* found = nullptr;
    const LineSource* source = nullptr;
    const std::vector<Run>* truth = nullptr;
    std::uint64_t fall = restart_fall;
    std::uint64_t truth_highest = 0;
    std::vector<std::uint64_t> recent;  // ring of the last restart_fall_always numbers
    std::size_t recent_next = 0;
    Candidate candidate;
};

void remember(OutputScan& scan, std::uint64_t seq) {
    if (scan.recent.size() < restart_fall_always) {
        scan.recent.push_back(seq);
        return;
    }
    scan.recent[scan.recent_next] = seq;
    scan.recent_next = (scan.recent_next + 1) % restart_fall_always;
}

// Whether the sequence falls so far in a run that a new one may begin.
bool falls(const Run& run, std::uint64_t seq, std::uint64_t least) {
    if (run.lines == 0 || seq >= run.highest) {
        return false;
    }
    const std::uint64_t fall = run.highest - seq;
    return fall > restart_fall_always || (seq <= run.first && fall >= least);
}

// Whether the run before the candidate had a line with this number. What is older than the numbers remembered
// is taken for one that it had: nothing in time can still be missing there.
bool was_there(const OutputScan& scan, std::uint64_t seq) {
    const std::vector<std::uint64_t>& recent = scan.candidate.recent;
    const Run& before = scan.found->runs.back();
    if (std::binary_search(recent.begin(), recent.end(), seq)) {
        return true;
    }
    return before.lines > recent.size() && seq >= before.lowest && seq < recent.front();
}

// Whether the candidate's lines could have been the end of a run by themselves, though the run before had
// none of their numbers: a run of the truth ends between them and the first number of the run before.
bool truth_ends_before(const OutputScan& scan) {
    return std::any_of(scan.truth->begin(), scan.truth->end(), [&](const Run& run) {
        return run.highest >= scan.candidate.run.highest && run.highest < scan.found->runs.back().first;
    });
}

bool is_new_run_at_end(const OutputScan& scan) {
    const Candidate& candidate = scan.candidate;
    const bool mostly_repeated = candidate.repeated * 2 >= candidate.run.lines;
    if (scan.truth->size() == 1) {  // a line that comes once more or too late is no run
        return mostly_repeated && candidate.run.lines > 1;
    }
    return mostly_repeated || truth_ends_before(scan);
}

// A new run that has climbed beyond the run before had most of its numbers again on the way.
bool is_new_run_beyond(const OutputScan& scan) {
    const Candidate& candidate = scan.candidate;
    const Run& before = scan.found->runs.back();
    const auto span = static_cast<double>(before.highest - before.lowest);
    const auto passed = static_cast<double>(before.highest - std::max(candidate.run.lowest, before.lowest));
    const double again = span == 0 ? 1.0 : static_cast<double>(before.lines) * passed / span;
    return candidate.repeated != 0 && static_cast<double>(candidate.repeated) * 4 >= again;
}

bool close_candidate(OutputScan& scan, bool is_new_run, std::string& error) {
    Candidate& candidate = scan.candidate;
    candidate.open = false;
    if (is_new_run) {
        return begin_run(*scan.found, candidate.run, candidate.end_offset_before, *scan.source, error);
    }
    Run& run = scan.found->runs.back();
    run.lines += candidate.run.lines;
    run.outside += candidate.run.outside;
    run.lowest = std::min(run.lowest, candidate.run.lowest);
    run.highest = std::max(run.highest, candidate.run.highest);
    std::vector<std::uint64_t> late;
    late.swap(scan.recent);
    std::rotate(late.begin(), late.begin() + static_cast<std::ptrdiff_t>(scan.recent_next), late.end());
    scan.recent_next = 0;
    for (const std::uint64_t seq : candidate.recent) {
        remember(scan, seq);
    }
    for (const std::uint64_t seq : late) {
        remember(scan, seq);
    }
    return true;
}

void open_candidate(OutputScan& scan, const Record& record) {
    Candidate& candidate = scan.candidate;
    candidate.open = true;
    candidate.run = run_starting_at(*scan.source, record);
    candidate.end_offset_before = candidate.run.offset - record.torn_bytes;
    candidate.repeated = 0;
    candidate.recent = scan.recent;
    std::sort(candidate.recent.begin(), candidate.recent.end());
    scan.recent.clear();
    scan.recent_next = 0;
}

// Enters one line of OUTPUT that is no mark. False at the limit of runs.
bool scan_line(OutputScan& scan, const Record& record, std::string& error) {
    Candidate& candidate = scan.candidate;
    if (record.seq > scan.truth_highest) {  // belongs to no run, wherever it is
        Run& run = candidate.open ? candidate.run : scan.found->runs.back();
        ++run.outside;
        return true;
    }
    if (candidate.open) {
        // What came late may be few lines, so half the fall ends them.
        const bool beyond = record.seq > scan.found->runs.back().highest;
        if (beyond || falls(candidate.run, record.seq, scan.fall / 2)) {
            const bool is_new = beyond ? is_new_run_beyond(scan) : is_new_run_at_end(scan);
            if (!close_candidate(scan, is_new, error)) {
                return false;
            }
        }
    }
    if (!candidate.open && falls(scan.found->runs.back(), record.seq, scan.fall)) {
        open_candidate(scan, record);
    }
    remember(scan, record.seq);
    if (!candidate.open) {
        count_line(scan.found->runs.back(), record.seq);
        return true;
    }
    count_line(candidate.run, record.seq);
    candidate.repeated += was_there(scan, record.seq) ? 1 : 0;
    const bool long_enough = candidate.run.lines > restart_fall_always;
    return !long_enough || close_candidate(scan, scan.truth->size() > 1 || is_new_run_at_end(scan), error);
}

}  // namespace

bool find_truth_runs(LineSource& source, FileRuns& found, std::string& error) {
    Record record;
    Line scratch;
    ReadResult result = ReadResult::line;
    while ((result = next_record(source, record, scratch, error)) == ReadResult::line) {
        const bool restarts =
            found.runs.empty() ||
            (record.mark ? record.seq < found.runs.back().highest
                         : found.runs.back().lines != 0 && record.seq <= found.runs.back().highest);
        note_torn(found, record);
        if (restarts) {
            const Run run = run_starting_at(source, record);
            if (!begin_run(found, run, run.offset - record.torn_bytes, source, error)) {
                return false;
            }
        }
        if (record.mark) {
            found.runs.back().highest = std::max(found.runs.back().highest, record.seq);
        } else {
            count_line(found.runs.back(), record.seq);
        }
    }
    end_runs(found, source);
    return result == ReadResult::end;
}

bool scan_single_run(LineSource& source, SingleRun& scan, std::string& error) {
    Record record;
    Line scratch;
    ReadResult result = ReadResult::line;
    while ((result = next_record(source, record, scratch, error)) == ReadResult::line) {
        if (scan.found.runs.empty()) {
            scan.found.runs.push_back(run_starting_at(source, record));
        }
        note_torn(scan.found, record);
        Run& run = scan.found.runs.back();
        if (record.mark) {
            continue;
        }
        if (run.lines != 0 && record.seq < run.highest) {
            const std::uint64_t fall = run.highest - record.seq;
            if (fall > restart_fall_always) {
                scan.possible = false;
                return true;
            }
            scan.deepest_fall = std::max(scan.deepest_fall, record.seq <= run.first ? fall : 0);
        }
        count_line(run, record.seq);
    }
    end_runs(scan.found, source);
    return result == ReadResult::end;
}

bool is_single_run(const SingleRun& scan, const std::vector<Run>& truth) {
    const bool in_range = scan.found.runs.empty() || scan.found.runs.back().highest <= highest_of(truth);
    return scan.possible && in_range && scan.deepest_fall < least_fall(truth);
}

bool find_output_runs(LineSource& source, const std::vector<Run>& truth, FileRuns& found,
                      std::string& error) {
    OutputScan scan;
    scan.found = &found;
    scan.source = &source;
    scan.truth = &truth;
    scan.fall = least_fall(truth);
    scan.truth_highest = highest_of(truth);
    Record record;
    Line scratch;
    ReadResult result = ReadResult::line;
    while ((result = next_record(source, record, scratch, error)) == ReadResult::line) {
        if (found.runs.empty()) {
            found.runs.push_back(run_starting_at(source, record));
        }
        note_torn(found, record);
        if (!record.mark && !scan_line(scan, record, error)) {
            return false;
        }
    }
    if (scan.candidate.open && !close_candidate(scan, is_new_run_at_end(scan), error)) {
        return false;
    }
    end_runs(found, source);
    return result == ReadResult::end;
}

}  // namespace tessel::judge
