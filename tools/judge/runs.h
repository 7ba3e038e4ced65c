#pragma once

#include "judge/line_source.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tessel::judge {

// One run of the feed, as far as a file tells: the stretch of lines up to where the sequence starts again.
struct Run {
    std::uint64_t offset = 0;  // of its first line in the file
    std::uint64_t end_offset = 0;
    std::uint64_t line_number = 0;  // of its first line
    std::uint64_t lines = 0;        // marks not counted
    std::uint64_t first = 0;        // sequence number of its first line
    std::uint64_t lowest = 0;
    std::uint64_t highest = 0;
};

// More runs in one file than anybody appends; keeps a file of nonsense from filling the memory.
inline constexpr std::size_t runs_max = 10'000;

// A handler writes lines a little out of order, so not every fall of the sequence is a new run in OUTPUT. It
// is one when the sequence falls to the run's first number or below, and by this much or half of the shortest
// run in the truth...
inline constexpr std::uint64_t restart_fall = 256;
// ...or when it falls by more than any reordering can account for.
inline constexpr std::uint64_t restart_fall_always = 16'384;

// Finds the runs of a truth log: its sequence numbers only rise, so any number that does not is the first of
// a new run. A mark carries the number of the message before it and so may repeat it, but not fall behind it.
// False with file, line and reason in `error` at the first line that is not a truth line.
bool find_truth_runs(LineSource& source, std::vector<Run>& runs, std::string* error);

// Finds the runs of OUTPUT by the rule above. When the truth has a single run so has OUTPUT, whatever its
// order.
bool find_output_runs(LineSource& source, const std::vector<Run>& truth, std::vector<Run>& runs,
                      std::string* error);

}  // namespace tessel::judge
