#pragma once

#include "judge/judge.h"

#include <string>

namespace tessel::judge {

// One run's chart as an SVG element: a stacked bar for each stretch of the sequence, missing at the bottom,
// then mismatched, then unexpected lines; only what there is is drawn. Colors come from the page's style.
std::string run_chart(const RunResult& run);

// The upper end of an axis that shows `most`: a round number that four steps divide into whole ones.
std::uint64_t axis_top(std::uint64_t most);

}  // namespace tessel::judge
