#pragma once

#include <cstdint>
#include <string>

// A file of lines, written in large pieces.
namespace tessel::listen {

struct Output {
    int fd = -1;
    bool owned = false;  // closed by close_output
    std::string buffer;  // lines not yet written; callers append here
    std::string error;   // the first failure; nothing is written after it
    std::uint64_t lines = 0;
};

// Opens `path` for writing from its beginning; "-" is standard output. False with the reason in
// `output.error`.
bool open_output(Output& output, const std::string& path);

// Writes the buffer when it has grown large.
void flush_when_large(Output& output);

// Writes the buffer, whatever its size.
void flush_output(Output& output);

void close_output(Output& output);

}  // namespace tessel::listen
