#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace tessel::certify {

// A part of a file that begins with a line.
struct FilePart {
    std::string path;
    std::uint64_t offset = 0;
    std::uint64_t line_number = 1;  // of the line at `offset`
    std::uint64_t end_offset = UINT64_MAX;
};

// Hands out each line that is not blank, with its number, until `take` says false. Lines are read as the
// judge reads them: none is longer than judge::line_bytes_max. False with "FILE:LINE: reason" in `error`.
bool each_line(const FilePart& part, const std::function<bool(std::string_view, std::uint64_t)>& take,
               std::string& error);

}  // namespace tessel::certify
