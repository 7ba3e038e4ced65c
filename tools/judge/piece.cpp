#include "judge/piece.h"

#include "judge/value.h"

#include <fmt/format.h>

#include <algorithm>

namespace tessel::judge {

namespace {

// The lines of the task at hand, parsed.
struct Lines {
    Line truth;
    Line output;
};

bool read_or_fail(Piece& piece, const std::string& name, const LineAt& at, Line& line) {
    std::string reason;
    if (read_line(at.text, line, reason)) {
        return true;
    }
    piece.found.error = fmt::format("{}:{}: {}", name, at.line_number, reason);
    return false;
}

// Notes which members an OUTPUT line gives.
void note_members(Piece& piece, const Line& line, std::string_view text) {
    PieceFindings& found = piece.found;
    const std::vector<std::string>& times = piece.options->latency_members;
    for (const UnknownMember& member : line.unknown_members) {
        const std::string_view name = span_text(line, text, member.name);
        if (std::find(times.begin(), times.end(), name) == times.end()) {
            note_unknown_member(found.unknown_members, found.more_unknown_members, name);
        }
    }
    found.known_members =
        found.known_members || std::any_of(line.members.begin(), line.members.end(),
                                           [](const Span& span) { return span.length != 0; });
}

// Compares the members that OUTPUT gives. A member that the truth line does not have is a mismatch, unless
// OUTPUT says null, which means exactly that.
std::uint32_t compare_members(PieceFindings& found, const Task& task, const Lines& lines) {
    std::uint32_t mismatched = 0;
    for (std::size_t member = 0; member != member_count; ++member) {
        const std::string_view got = member_text(lines.output, task.output.text, member);
        if (got.empty()) {
            continue;
        }
        const std::string_view expected = member_text(lines.truth, task.truth.text, member);
        ++found.members[member].compared;
        const bool same = expected.empty() ? got == "null" : same_value(member, expected, got);
        if (!same) {
            ++found.members[member].mismatched;
            mismatched |= 1U << member;
        }
    }
    return mismatched;
}

// Counts a mismatch for its member and symbol; true when it is the piece's first one.
bool note_first(Piece& piece, const Task& task, const Lines& lines, std::size_t member) {
    PieceFindings& found = piece.found;
    const std::string_view symbol =
        member_text(lines.truth, task.truth.text, static_cast<std::size_t>(Member::symbol));
    std::string key = shown_text(symbol, example_value_bytes_max);
    key += static_cast<char>(member);
    const auto [place, is_new] = found.first_index.try_emplace(std::move(key), found.first.size());
    if (!is_new) {
        ++found.first[place->second].lines;
        return false;
    }
    MemberDifference first;
    first.run = piece.run->truth_run;
    first.seq = task.seq;
    first.symbol = shown_text(symbol, example_value_bytes_max);
    first.member = member;
    first.truth = shown_text(member_text(lines.truth, task.truth.text, member), example_value_bytes_max);
    first.output = shown_text(member_text(lines.output, task.output.text, member), example_value_bytes_max);
    first.in_gap = task.in_gap;
    found.first.push_back(std::move(first));
    return true;
}

void note_mismatch(Piece& piece, std::size_t index, const Lines& lines, std::uint32_t members) {
    const Task& task = piece.tasks[index];
    piece.found.mismatched.push_back(index);
    bool has_first = false;
    for (std::size_t member = 0; member != member_count; ++member) {
        if ((members >> member & 1U) != 0) {
            has_first = note_first(piece, task, lines, member) || has_first;
        }
    }
    if (!has_first) {
        return;
    }
    Difference difference;
    difference.in_gap = task.in_gap;
    difference.run = piece.run->truth_run;
    difference.seq = task.seq;
    difference.seq_last = task.seq;
    difference.members = members;
    difference.truth_line = task.truth.line_number;
    difference.output_line = task.output.line_number;
    difference.truth_text = shown_text(task.truth.text, shown_bytes_max);
    difference.output_text = shown_text(task.output.text, shown_bytes_max);
    piece.found.examples.push_back({index, std::move(difference)});
}

// Compares the two lines of a task, or checks its only one. False at an invalid line.
bool compare_task(Piece& piece, std::size_t index, Lines& lines) {
    const Task& task = piece.tasks[index];
    PieceFindings& found = piece.found;
    const bool has_truth = task.truth.line_number != 0;
    const bool has_output = task.output.line_number != 0;
    if (has_truth && !read_or_fail(piece, piece.truth_name, task.truth, lines.truth)) {
        return false;
    }
    if (has_truth && has_output && task.output.text == task.truth.text) {  // needs no reading again
        for (std::size_t member = 0; member != member_count; ++member) {
            found.members[member].compared += lines.truth.members[member].length != 0 ? 1 : 0;
        }
        note_members(piece, lines.truth, task.truth.text);
        ++found.matched;
        return true;
    }
    if (!has_output) {
        return true;
    }
    if (!read_or_fail(piece, piece.output_name, task.output, lines.output)) {
        return false;
    }
    note_members(piece, lines.output, task.output.text);
    if (!has_truth) {
        return true;
    }
    if (task.sip_ns != 0) {
        take_samples(lines.output, task.output.text, piece.options->latency_members, task.sip_ns,
                     task.recovered, found.latencies);
    }
    const std::uint32_t members = compare_members(found, task, lines);
    if (members == 0) {
        ++found.matched;
    } else {
        note_mismatch(piece, index, lines, members);
    }
    return true;
}

}  // namespace

void clear_piece(Piece& piece) {
    for (Block* const block : piece.blocks) {
        --block->users;
    }
    piece.tasks.clear();
    piece.bytes = 0;
    piece.blocks.clear();
    piece.own_texts.clear();
    piece.notes.clear();
    piece.notes_found = 0;
    piece.found = PieceFindings{};
    piece.done = false;
}

void keep_block(Piece& piece, const LineSource& source) {
    if (std::find(piece.blocks.begin(), piece.blocks.end(), source.block) == piece.blocks.end()) {
        piece.blocks.push_back(source.block);
        ++source.block->users;
    }
}

void compare_piece(Piece& piece) {
    Lines lines;
    for (std::size_t index = 0; index != piece.tasks.size(); ++index) {
        if (!compare_task(piece, index, lines)) {
            return;
        }
    }
}

void note_unknown_member(std::vector<std::string>& names, bool& more, std::string_view name) {
    if (name.size() > unknown_member_bytes_max) {
        name = name.substr(0, unknown_member_bytes_max);
    }
    if (std::find(names.begin(), names.end(), name) != names.end()) {
        return;
    }
    if (names.size() == unknown_members_kept_max) {
        more = true;
    } else {
        names.emplace_back(name);
    }
}

std::string shown_text(std::string_view text, std::size_t bytes_max) {
    if (text.size() <= bytes_max) {
        return std::string(text);
    }
    return fmt::format("{} ... ({} bytes)", text.substr(0, bytes_max), text.size());
}

}  // namespace tessel::judge
