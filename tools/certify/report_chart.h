#pragma once

#include "certify/report_summary.h"

#include <string>
#include <vector>

// The charts of the HTML report as SVG elements. Colors come from the page's style; shapes say the same
// without them.
namespace tessel::certify {

// The page's anchor of a case: letters, digits, '.', '_' and '-' alone.
std::string anchor_of(const CaseResult& result);

// A row a group (and handler), a square a case that leads to its section.
std::string group_chart(const Certificate& certificate, const std::vector<CaseSummary>& cases);

// One curve of missing messages against the rate.
struct LoadSeries {
    std::string name;
    std::vector<LoadPoint> points;
    std::uint64_t highest_rate = 0;
};

inline constexpr std::size_t load_series_max = 6;

// The curves of at most load_series_max series, their highest rate without loss marked. "" when no series has
// a point.
std::string load_chart(const std::vector<LoadSeries>& series);

// Matched, mismatched, missing and unexpected lines of a result as one bar; "" when there are none.
std::string lines_bar(const CaseResult& result);

}  // namespace tessel::certify
