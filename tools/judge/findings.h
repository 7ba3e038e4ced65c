#pragma once

#include "judge/judge.h"
#include "judge/piece.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tessel::judge {

// Where findings are entered, in the order of the truth.
struct Findings {
    Result* result = nullptr;
    std::unordered_map<std::string, std::size_t> examples;  // symbol and member: index in result->examples
    std::string error;                                      // of the first invalid line
};

// Enters what a piece has found: totals, chart, examples and kept differences. Pieces come in the order in
// which they were cut. False at an invalid line in it; later pieces do not count then.
bool enter_piece(Findings& findings, Piece& piece);

// The chart's part that a sequence number falls into; nullptr when the run has no chart.
Bucket* bucket_of(RunResult& run, std::uint64_t seq);

// Adds a run's totals to the whole's.
void add_totals(Totals& whole, const Totals& part);

}  // namespace tessel::judge
