#pragma once

#include "certify/case.h"

#include <string>
#include <string_view>
#include <vector>

namespace tessel::certify {

// A case file has some hundred bytes; the limit keeps a file of nonsense from filling the memory.
constexpr std::size_t case_bytes_max = std::size_t{1} << 20;

// What a case may ask for. A case waits for real time to pass, so that what is longer is a mistake.
constexpr double case_seconds_max = 600;
constexpr unsigned case_feeds_max = 8;
constexpr unsigned generated_symbols_max = 9'000;  // in one argument of a command line (128 KiB)
constexpr std::size_t case_restarts_max = 10;
constexpr std::size_t load_rates_max = 30;

// Reads the text of the case GROUP/STEM; `file` is where it is from, for messages and for files that it
// names. Every fault is one line in `faults`, "FILE:LINE: TABLE.KEY: what is wrong". True when there is none.
bool read_case(std::string_view text, const std::string& file, const std::string& group,
               const std::string& stem, Case& out, std::vector<std::string>& faults);

// The same from the file FOLDER/GROUP/STEM.toml at `path`.
bool read_case_file(const std::string& path, Case& out, std::vector<std::string>& faults);

// Whether a text may be the name of a group or of a case in it: letters, digits, '_' and '-'.
bool is_case_word(std::string_view text);

}  // namespace tessel::certify
