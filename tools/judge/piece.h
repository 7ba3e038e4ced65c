#pragma once

#include "judge/judge.h"
#include "judge/line_source.h"

#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tessel::judge {

// One line of a file: its text and its number in the file, 0 when there is none.
struct LineAt {
    std::string_view text;
    std::uint64_t line_number = 0;
};

// Lines to be read in full: a truth line and the OUTPUT line of the same number are compared; one line alone
// only has to be valid.
struct Task {
    LineAt truth;
    LineAt output;
    std::uint64_t seq = 0;
    bool in_gap = false;
    bool recovered = false;    // the OUTPUT line comes after one with a larger number
    std::uint64_t sip_ns = 0;  // 0: not known
};

// A difference that needs no comparison, found before task number `task` of the piece.
struct Note {
    std::size_t task = 0;
    Difference difference;
};

// What comparing a piece's lines has found.
struct PieceFindings {
    std::array<MemberCount, member_count> members{};
    std::uint64_t matched = 0;
    std::vector<std::size_t> mismatched;  // tasks
    std::vector<Note> examples;  // mismatched lines that are the piece's first for a member and symbol
    std::vector<MemberDifference> first;                       // of each member and symbol
    std::unordered_map<std::string, std::size_t> first_index;  // symbol and member: index in `first`
    std::vector<std::string> unknown_members;
    bool more_unknown_members = false;
    bool known_members = false;
    std::vector<LatencySample> latencies;
    std::string error;  // at the first invalid line; nothing after it has been compared
};

// A stretch of both files, cut at line boundaries: the unit of work that threads share. Whoever fills it and
// enters its findings is one thread; only `compare_piece` runs in others.
struct Piece {
    RunResult* run = nullptr;
    const Options* options = nullptr;
    std::vector<Task> tasks;
    std::size_t bytes = 0;
    std::vector<Block*> blocks;         // that the tasks' texts are in, kept by their `users`
    std::deque<std::string> own_texts;  // copies, of OUTPUT lines that were held
    std::vector<Note> notes;
    std::uint64_t notes_found = 0;  // with those not kept
    PieceFindings found;
    std::string truth_name;  // for errors
    std::string output_name;
    bool done = false;  // guarded by the workers' lock
};

inline constexpr std::size_t piece_tasks_max = 1'024;
inline constexpr std::size_t piece_bytes_max = 512U << 10;

// Makes an empty piece of a used one, keeping its memory. Its blocks lose a user each.
void clear_piece(Piece& piece);

// Keeps the block that the source's last line is in for as long as the piece needs it.
void keep_block(Piece& piece, const LineSource& source);

// Reads and compares the lines of all tasks, in order. The findings depend on the piece alone.
void compare_piece(Piece& piece);

// Adds a name to those seen, unless the list is full.
void note_unknown_member(std::vector<std::string>& names, bool& more, std::string_view name);

// A text as reports show it, cut when it is too long.
std::string shown_text(std::string_view text, std::size_t bytes_max);

}  // namespace tessel::judge
