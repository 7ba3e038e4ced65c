#pragma once

#include "judge/input.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {

// Part of a file, in memory. Lines refer to it; while `users` is not 0 its bytes stay.
struct Block {
    std::vector<char> bytes;
    std::uint32_t users = 0;
};

// Reads a file line by line through few blocks, so that memory does not depend on the file's size.
struct LineSource {
    Input input;
    std::vector<std::unique_ptr<Block>> blocks;
    Block* block = nullptr;  // that the line returned last is in
    std::size_t begin = 0;   // first unread byte in the block
    std::size_t end = 0;
    std::uint64_t block_offset = 0;  // of the block's first byte in the (unpacked) file
    std::uint64_t end_offset = 0;    // nothing is read from here on
    std::uint64_t line_number = 0;   // of the line returned last; the first line is 1
};

enum class ReadResult : std::uint8_t { line, end, error };

// Begins to read an open input from its beginning to its end.
bool start_source(LineSource& source, std::string& error);

// Continues at byte `offset`, whose line is number `line_number`, and ends before byte `end_offset`.
bool seek_source(LineSource& source, std::uint64_t offset, std::uint64_t end_offset,
                 std::uint64_t line_number, std::string& error);

// The next line that is not blank, without its line feed. The text is valid until the next call, and for as
// long as its block has users. A last line without a line feed is a line too. `error` is set when the file
// cannot be read or a line is longer than line_bytes_max.
ReadResult next_line(LineSource& source, std::string_view& text, std::string& error);

// Where in the file a text starts that is part of the line returned last.
std::uint64_t line_offset(const LineSource& source, std::string_view text);

}  // namespace tessel::judge
