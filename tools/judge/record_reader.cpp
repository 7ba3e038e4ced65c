#include "judge/record_reader.h"

#include <fmt/format.h>

#include <cstring>

namespace tessel::judge {

namespace {

// A flat object has one opening brace; a torn line with a whole one after it has two.
bool has_second_brace(std::string_view text) {
    return std::memchr(text.data() + 1, '{', text.size() - 1) != nullptr;
}

}  // namespace

ReadResult next_record(LineSource& source, Record& record, Line& scratch, std::string& error) {
    const ReadResult read = next_line(source, record.text, error);
    if (read != ReadResult::line) {
        return read;
    }
    record.line_number = source.line_number;
    record.mark = false;
    record.torn_bytes = 0;
    if (peek_sequence(record.text, record.seq) && !has_second_brace(record.text)) {
        return ReadResult::line;
    }
    std::string reason;
    if (!read_line(record.text, scratch, reason)) {
        record.torn_bytes = find_line_after_torn(record.text);
        if (record.torn_bytes == 0) {
            error = fmt::format("{}:{}: {}", source.input.name, record.line_number, reason);
            return ReadResult::error;
        }
        if (!peek_sequence(record.text, record.torn_seq)) {
            record.torn_seq = 0;
        }
        record.text.remove_prefix(record.torn_bytes);
        read_line(record.text, scratch, reason);
    }
    record.seq = scratch.seq;
    record.mark = scratch.mark;
    return ReadResult::line;
}

}  // namespace tessel::judge
