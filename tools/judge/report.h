#pragma once

#include "judge/channels.h"
#include "judge/judge.h"

#include <string>
#include <string_view>

namespace tessel::judge {

// The report as text: verdict, members that were not compared, totals, members with a mismatch, the first ten
// differences in full, mismatched lines as one example a member and symbol.
std::string text_report(const Options& options, const Result& result);

// The report as one HTML page that needs nothing from anywhere: verdict, totals, a chart over each run,
// members and differences as tables. Everything that comes from the files is escaped.
std::string html_report(const Options& options, const Result& result);

// The result for programs: one JSON object, its members as docs/judging.md lists them.
std::string json_report(const Options& options, const Result& result);

// The results of all channels: their sum, and an object for each.
std::string json_report(const Options& options, const std::vector<Channel>& channels);

// The results of all channels as text: the sum, and a line for each.
std::string text_report(const Options& options, const std::vector<Channel>& channels);

// The result as JUnit XML: a test case for missing lines, for unexpected lines, and for each member.
std::string junit_report(const Options& options, const Result& result);

// The result as a short section of Markdown.
std::string markdown_report(const Options& options, const Result& result);

// "AGREES", "DIFFERS" or "NOTHING COMPARED".
std::string_view verdict_word(Verdict verdict);

// One sentence that carries the verdict.
std::string verdict_sentence(const Result& result);

// What follows the name of a member that was not compared: "which no truth line has", and the member that it
// may be meant for.
std::string unknown_member_note(const std::string& name);

// How a torn line is named.
std::string torn_line_note(const TornLineAt& torn);

// The runs that were judged, "" when both files hold one.
std::string runs_note(const Options& options, const Result& result);

// 1234567 as "1,234,567".
std::string grouped(std::uint64_t number);

// A difference's members as their names, "nbbo, status".
std::string member_list(std::uint32_t members);

// The value of a member in a line that a difference shows; "" when the line has none.
std::string shown_value(const std::string& text, std::size_t member);

}  // namespace tessel::judge
