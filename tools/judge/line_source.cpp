#include "judge/line_source.h"

#include "judge/line_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace tessel::judge {

namespace {

// Small enough to stay in a core's cache between being read and being compared.
constexpr std::size_t block_bytes = 256U << 10;
// Room for the longest line and as much again, so that most reads move little.
constexpr std::size_t large_block_bytes = 2 * line_bytes_max;

// A block of at least `bytes` bytes that nothing refers to.
Block& free_block(LineSource& source, std::size_t bytes) {
    for (const std::unique_ptr<Block>& block : source.blocks) {
        if (block->users == 0 && block->bytes.size() >= bytes && block.get() != source.block) {
            return *block;
        }
    }
    source.blocks.push_back(std::make_unique<Block>());
    source.blocks.back()->bytes.resize(bytes);
    return *source.blocks.back();
}

// Moves the unread rest to the front of a block and fills it up from the file. False at a read error.
bool refill(LineSource& source, std::string& error) {
    const std::size_t rest = source.end - source.begin;
    const std::size_t size = rest < block_bytes / 2 ? block_bytes : large_block_bytes;
    Block* const before = source.block;
    if (before == nullptr || before->users != 0 || before->bytes.size() < size) {
        source.block = &free_block(source, size);
    }
    if (rest != 0) {
        std::memmove(source.block->bytes.data(), before->bytes.data() + source.begin, rest);
    }
    source.block_offset += source.begin;
    source.begin = 0;
    source.end = rest;
    const std::uint64_t position = source.block_offset + source.end;
    const std::uint64_t room = std::min<std::uint64_t>(
        source.block->bytes.size() - source.end, source.end_offset - std::min(position, source.end_offset));
    const ssize_t got =
        room == 0 ? 0 : read_input(source.input, source.block->bytes.data() + source.end, room, error);
    if (got < 0) {
        return false;
    }
    if (got == 0) {
        source.end_offset = position;  // the file's end
    }
    source.end += static_cast<std::size_t>(got);
    return true;
}

bool is_blank(std::string_view text) {
    return text.find_first_not_of(" \t\r") == std::string_view::npos;
}

}  // namespace

bool start_source(LineSource& source, std::string& error) {
    return seek_source(source, 0, UINT64_MAX, 1, error);
}

bool seek_source(LineSource& source, std::uint64_t offset, std::uint64_t end_offset,
                 std::uint64_t line_number, std::string& error) {
    source.begin = 0;
    source.end = 0;
    source.block_offset = offset;
    source.end_offset = end_offset;
    source.line_number = line_number - 1;
    return seek_input(source.input, offset, error);
}

ReadResult next_line(LineSource& source, std::string_view& text, std::string& error) {
    std::size_t searched = 0;  // bytes after `begin` known to hold no line feed
    while (true) {
        const std::size_t held = source.end - source.begin;
        const char* const first = held == 0 ? nullptr : source.block->bytes.data() + source.begin;
        const std::size_t feed = std::string_view(first, held).find('\n', searched);
        const bool has_feed = feed != std::string_view::npos;
        const bool at_end = source.block_offset + source.end >= source.end_offset;
        if (has_feed || (at_end && held != 0)) {
            const std::size_t length = has_feed ? feed : held;
            text = std::string_view(first, length);
            source.begin += length + (has_feed ? 1 : 0);
            ++source.line_number;
            if (length <= line_bytes_max && is_blank(text)) {
                searched = 0;
                continue;
            }
            return ReadResult::line;
        }
        if (at_end) {
            return ReadResult::end;
        }
        if (held > line_bytes_max) {
            error = fmt::format("{}:{}: line longer than {} bytes", source.input.name, source.line_number + 1,
                                line_bytes_max);
            return ReadResult::error;
        }
        searched = held;
        if (!refill(source, error)) {
            return ReadResult::error;
        }
    }
}

std::uint64_t line_offset(const LineSource& source, std::string_view text) {
    return source.block_offset + static_cast<std::uint64_t>(text.data() - source.block->bytes.data());
}

}  // namespace tessel::judge
