#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {

// Reads a regular file line by line through one buffer, so that memory does not depend on the file's size.
struct LineSource {
    std::string path;
    int fd = -1;
    std::vector<char> buffer;
    std::size_t begin = 0;  // first unread byte in the buffer
    std::size_t end = 0;
    std::uint64_t buffer_offset = 0;  // where in the file the buffer starts
    std::uint64_t end_offset = 0;     // nothing is read from here on
    std::uint64_t line_number = 0;    // of the line handed out last; the first line is 1

    LineSource() = default;
    LineSource(const LineSource&) = delete;
    LineSource& operator=(const LineSource&) = delete;
    ~LineSource();
};

enum class ReadResult : std::uint8_t { line, end, error };

// Opens a file for reading. False with the reason in `error` when it cannot be opened or is not a regular
// file (the judge reads twice, so a pipe will not do).
bool open_source(LineSource& source, const std::string& path, std::string* error);

// Goes on at byte `offset`, whose line is number `line_number`, and ends before byte `end_offset`.
void seek_source(LineSource& source, std::uint64_t offset, std::uint64_t end_offset,
                 std::uint64_t line_number);

// The next line that is not blank, without its line feed. The text is valid until the next call. A last line
// without a line feed is a line too. `error` is set when the file cannot be read or a line is longer than
// line_bytes_max.
ReadResult next_line(LineSource& source, std::string_view& text, std::string* error);

// Where in the file the line handed out last starts.
std::uint64_t line_offset(const LineSource& source, std::string_view text);

}  // namespace tessel::judge
