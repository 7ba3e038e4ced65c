#pragma once

#include "certify/certificate.h"
#include "certify/ready.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The command line of tessel-certify.
namespace tessel::certify {

enum ExitStatus : int { status_passed = 0, status_failed = 1, status_bad_input = 2 };

// An error is one line of at most this many characters.
inline constexpr std::size_t error_bytes_max = 200;

struct Options {
    std::vector<Handler> handlers;
    std::string late_arg;
    Ready ready;
    std::string ready_text;  // as it was given, "" for the membership
    double ready_timeout_seconds = 10;

    std::vector<std::string> case_folders;
    std::vector<std::string> groups;
    std::vector<std::string> names;
    unsigned repeat = 1;
    Campaign campaign;                     // of no jobs: there is none
    std::vector<std::string> merge_paths;  // files of results to add up instead of running cases
    std::uint64_t seed = 1;
    unsigned jobs = 0;  // 0: as many as suit the machine

    bool list = false;
    std::string explain;

    std::vector<std::string> about;
    std::string out;  // the folder of what is kept, "" for none
    // Where reports go, "-" for standard output, "" for nowhere.
    std::string json_path;
    std::string junit_path;
    std::string markdown_path;
    std::string html_path;
};

// Reads the command line. A negative value means: go on. Otherwise the program ends with it: after --help and
// --version, which are printed, with 0, after a wrong command line, which is reported, with 2.
int parse_options(Options& options, int argc, const char* const* argv);

// Takes the texts of --handler apart. One text alone is a command, or NAME=COMMAND when what is before its
// first
// '=' is a word that no shell would take for a variable or a path. Of several each has a name, and each
// another. False with a reason in `error`.
bool parse_handlers(const std::vector<std::string>& texts, std::vector<Handler>& handlers,
                    std::string& error);

// The name of an only handler that was given none.
inline constexpr std::string_view only_handler_name = "handler";

// An error as it is printed: one line that begins with the program's name, control characters made blanks,
// shortened in the middle.
std::string error_line(std::string_view text);
void print_error(std::string_view text);

}  // namespace tessel::certify
