#pragma once

#include "judge/line_source.h"
#include "judge/runs.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tessel::judge {

// Lines of the truth's run that are looked up in each run of OUTPUT, evenly spread.
inline constexpr std::uint64_t choice_samples_max = 1'024;

// Which of OUTPUT's runs belong to the truth's only one.
struct RunChoice {
    std::size_t judged = 0;            // index of the run with most lines that agree, the later one of equals
    std::vector<std::size_t> repeats;  // other runs with nearly all lines agreeing: the same run again
};

// Reads both files again to choose among two runs or more. False with file, line and reason in `error`.
bool choose_run(LineSource& truth, const Run& truth_run, LineSource& output, const std::vector<Run>& runs,
                RunChoice& choice, std::string& error);

}  // namespace tessel::judge
