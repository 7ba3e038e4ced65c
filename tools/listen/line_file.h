#pragma once

#include <cstdint>
#include <string>

// A file of lines, written in large pieces.
namespace tessel::listen {

struct Output {
    int fd = -1;
    bool owned = false;            // closed by close_output
    std::string buffer;            // lines not yet written; callers append here
    std::string error;             // the first failure; nothing is written after it
    std::string option = "--out";  // names the file in errors
    std::uint64_t lines = 0;
    // Asked when a signal interrupts a write: true gives the write up, which is then the output's error. Null
    // never does.
    bool (*abandon_write)() = nullptr;
};

// Opens `path` for writing from its beginning; "-" is standard output. A file of that name is emptied, unless
// it is the same file as `input` (a path, may be empty) or another program has it open for writing: a truth
// log must not be lost to a wrong name or a link. The file is written in append mode, so that one that is
// truncated meanwhile gets no hole. False with the reason in `output.error`.
bool open_output(Output& output, const std::string& path, const std::string& input);

// Writes the buffer when it has grown large.
void flush_when_large(Output& output);

// Writes the buffer, whatever its size.
void flush_output(Output& output);

// Sets `output.error` when the output is a pipe or socket whose reader has gone, without waiting for the next
// write.
void check_output(Output& output);

void close_output(Output& output);

}  // namespace tessel::listen
