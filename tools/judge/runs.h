#pragma once

#include "judge/line_source.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tessel::judge {

// One run of the feed as seen in a file: the lines up to where the sequence starts again.
struct Run {
    std::uint64_t offset = 0;  // of its first line in the file
    std::uint64_t end_offset = 0;
    std::uint64_t line_number = 0;  // of its first line
    std::uint64_t lines = 0;        // marks and lines outside not counted
    std::uint64_t outside = 0;      // OUTPUT's lines with a number above every run of the truth
    std::uint64_t first = 0;        // sequence number of its first line
    std::uint64_t lowest = 0;
    std::uint64_t highest = 0;
};

// A line that was never finished, left out; see Record.
struct TornLine {
    std::uint64_t line_number = 0;
    std::uint64_t bytes = 0;
    std::uint64_t seq = 0;  // 0 when it cannot be read
    std::size_t run = 0;    // index of the run that it belongs to
};

struct FileRuns {
    std::vector<Run> runs;
    std::vector<TornLine> torn;  // the first torn_lines_max
};

// More runs in one file than anybody appends; keeps a file of nonsense from filling the memory.
inline constexpr std::size_t runs_max = 10'000;
inline constexpr std::size_t torn_lines_max = 1'000;

// A handler writes lines a little out of order, so not every fall of the sequence begins a new run in OUTPUT.
// It may begin one when the sequence falls to the run's first number or below, and by this much or half of
// the shortest run in the truth...
inline constexpr std::uint64_t restart_fall = 256;
// ...or when it falls by more than any reordering can account for. What the lines after the fall are decides:
// numbers that the run had already are a new run; numbers that it still lacked are late lines of the same
// run.
inline constexpr std::uint64_t restart_fall_always = 16'384;

// Finds the runs of a truth log: its sequence numbers only rise, so any number that does not is the first of
// a new run. A mark carries the number of the message before it and so may repeat it, but not be lower.
// False with file, line and reason in `error` at the first line that is not a truth line.
bool find_truth_runs(LineSource& source, FileRuns& found, std::string& error);

// What a scan of OUTPUT that does not know the truth yet finds: usually all lines are one run.
struct SingleRun {
    FileRuns found;
    bool possible = true;            // false: the sequence falls too far, and the scan ended there
    std::uint64_t deepest_fall = 0;  // to the run's first number or below
};

// Scans OUTPUT while the truth is being scanned by another thread.
bool scan_single_run(LineSource& source, SingleRun& scan, std::string& error);

// Whether find_output_runs would find the same.
bool is_single_run(const SingleRun& scan, const std::vector<Run>& truth);

// Finds the runs of OUTPUT by the rule above. Numbers above every run of the truth have no influence.
bool find_output_runs(LineSource& source, const std::vector<Run>& truth, FileRuns& found, std::string& error);

}  // namespace tessel::judge
