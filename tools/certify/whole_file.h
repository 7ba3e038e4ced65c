#pragma once

#include <string>
#include <string_view>

namespace tessel::certify {

// Writes the text so that the file is there as a whole or not at all, also when this process is killed while
// it writes: into a file beside it, which then takes its name. What is no regular file (a pipe, a terminal)
// is written as it is. False with "PATH: reason" in `error`.
bool write_whole_file(const std::string& path, std::string_view text, std::string& error);

}  // namespace tessel::certify
