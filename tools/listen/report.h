#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// What tessel-listen says on standard error. A line that cannot be written is dropped: a full disk or a
// closed pipe at standard error never ends the program.
namespace tessel::listen {

// Longest error line, without its line feed. The lines of the summary may be longer.
constexpr std::size_t error_line_max = 200;

// "tessel-listen: " and the text as one line of at most `most` characters: control characters become '?', a
// text that is too long ends in "...".
std::string report_line(std::string_view text, std::size_t most);

// From here on this thread's lines name a channel: "tessel-listen: ch01: ...". An empty name ends that.
void label_reports(std::string_view name);

// Writes an error or a notice: one line of at most error_line_max characters.
void report(std::string_view text);

// Writes a line of the summary, whatever its length.
void report_summary(std::string_view text);

}  // namespace tessel::listen
