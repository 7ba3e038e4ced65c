#pragma once

#include "judge/judge.h"

#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {

enum ExitStatus : int { status_agrees = 0, status_differs = 1, status_bad_input = 2 };

// An error is one line of at most this many characters.
inline constexpr std::size_t error_bytes_max = 200;

struct ProgramOptions {
    Options judged;
    std::string channels_path;  // of a channel list; TRUTH and OUTPUT are folders then
    std::string latency_names;  // as given, with commas
    // Where reports go, "-" for standard output, "" for nowhere. The text goes to standard output unless one
    // of them takes it.
    std::string html_path;
    std::string json_path;
    std::string junit_path;
    std::string markdown_path;
};

// Reads the command line. A negative value means: go on. Otherwise the program ends with it: after --help and
// --version, which are printed, with 0, after a wrong command line, which is reported, with 2.
int parse_options(ProgramOptions& options, int argc, const char* const* argv);

// An error as it is printed: one line that begins with the program's name, control characters made blanks,
// shortened in the middle.
std::string error_line(std::string_view text);

// Prints an error to standard error. That it cannot be written is nothing to stop for.
void print_error(std::string_view text);

}  // namespace tessel::judge
