#pragma once

#include "judge/line_reader.h"
#include "judge/line_source.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tessel::judge {

// One line of a file, as far as its sequence number.
struct Record {
    std::string_view text;  // valid until the next call
    std::uint64_t seq = 0;
    std::uint64_t line_number = 0;
    bool mark = false;
    // Bytes of a torn line in front of `text`, on the same line of the file: an earlier program was stopped
    // in the middle of writing them, and the next one continued the file. 0 when there are none.
    std::size_t torn_bytes = 0;
    std::uint64_t torn_seq = 0;  // the torn line's sequence number, 0 when it cannot be read
};

// The next line that is not blank. Only lines that do not begin {"seq":N or that hold a second brace are read
// in full, so an ordinary line that is invalid further on is not noticed here. At a line that cannot be read
// `error` is "FILE:LINE: reason". `scratch` is used for its memory.
ReadResult next_record(LineSource& source, Record& record, Line& scratch, std::string& error);

}  // namespace tessel::judge
