#pragma once

#include "judge/judge.h"

#include <cstdint>
#include <string_view>

namespace tessel::judge {

// Where the judge's findings are entered: figures, chart and kept differences of the run that is judged.
struct Tally {
    Result* result = nullptr;
    RunResult* run = nullptr;
    Difference gap;  // the stretch of missing lines that is growing; lines = 0 when there is none
};

// One line of a file: its text and its number in the file.
struct LineAt {
    std::string_view text;
    std::uint64_t line_number = 0;
};

// What is found from here on belongs to this run.
void begin_run(Tally& tally, RunResult& run);

void count_mismatched(Tally& tally, std::uint64_t seq, std::uint32_t members, LineAt truth, LineAt output);

// A truth line without an OUTPUT line. Missing lines in a row are one difference, entered by end_gap.
void count_missing(Tally& tally, std::uint64_t seq, LineAt truth);
void end_gap(Tally& tally);

// An OUTPUT line without a truth line; cause is the figure that says why, reason the same in words.
void count_unexpected(Tally& tally, std::uint64_t seq, LineAt output, std::uint64_t Figures::*cause,
                      std::string_view reason);

// Adds a run's figures to the whole's.
void add_figures(Figures& total, const Figures& part);

}  // namespace tessel::judge
