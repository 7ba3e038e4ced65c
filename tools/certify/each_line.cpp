#include "certify/each_line.h"

#include "judge/line_source.h"

namespace tessel::certify {

bool each_line(const FilePart& part, const std::function<bool(std::string_view, std::uint64_t)>& take,
               std::string& error) {
    judge::LineSource source;
    if (!judge::open_input(source.input, part.path, error) || !judge::start_source(source, error)) {
        return false;
    }
    const bool whole = part.offset == 0 && part.end_offset == UINT64_MAX;
    if (!whole && !judge::seek_source(source, part.offset, part.end_offset, part.line_number, error)) {
        return false;
    }
    std::string_view text;
    judge::ReadResult read = judge::ReadResult::line;
    while ((read = judge::next_line(source, text, error)) == judge::ReadResult::line) {
        if (!take(text, source.line_number)) {
            return true;
        }
    }
    return read == judge::ReadResult::end;
}

}  // namespace tessel::certify
