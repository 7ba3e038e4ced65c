#pragma once

#include "certify/judging.h"

#include <cstdint>
#include <string>
#include <vector>

// Every line that differs, where the judge keeps examples.
namespace tessel::certify {

// As many lines are looked at; the judge's totals count all.
inline constexpr std::size_t differing_lines_max = 5'000;
// Of longer files only what the judge keeps is taken.
inline constexpr std::uint64_t examined_bytes_max = std::uint64_t{128} << 20;

struct LineDifference {
    judge::DifferenceKind kind = judge::DifferenceKind::mismatched;
    std::size_t run = 0;  // of the truth, the first is 1; 0 when the line belongs to none
    std::uint64_t seq = 0;
    std::uint32_t members = 0;  // of a mismatched line: bit i means judge::member_names[i]
    std::string symbol;
    std::string truth;  // the lines, cut at judge::shown_bytes_max
    std::string output;
    bool in_gap = false;  // a line with a smaller number came later, or never
};

// The lines that differ, in the order of the truth; a run's unexpected lines follow.
std::vector<LineDifference> differing_lines(const Judgment& judgment, bool from_first);

}  // namespace tessel::certify
