#pragma once

#include "judge/judge.h"

#include <cstdio>
#include <string>

namespace tessel::judge {

// The report as text: verdict, figures, members with a mismatch, the first ten differences in full.
std::string text_report(const Options& options, const Result& result);

// The report as one HTML page that needs nothing from anywhere: verdict, figures, a chart over each run,
// members and differences as tables. Everything that comes from the files is escaped.
std::string html_report(const Options& options, const Result& result);

// One sentence that carries the verdict.
std::string verdict_sentence(const Result& result);

// 1234567 as "1,234,567".
std::string grouped(std::uint64_t number);

// A difference's members as their names, "nbbo, status".
std::string member_list(std::uint32_t members);

// The value of a member in a line that a difference shows; "" when the line has none.
std::string shown_value(const std::string& text, std::size_t member);

}  // namespace tessel::judge
