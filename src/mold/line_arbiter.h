#pragma once

#include "mold/restart_detector.h"

#include <cstddef>
#include <cstdint>
#include <vector>

// Several lines that carry the same numbered messages: which numbers each has passed, which brought a number
// first, and how far a line comes after the first one. Lines may be packed differently.
//
// A number is missing when every line has passed it. A line that lags and has brought nothing new for
// the patience counts as if it had passed everything, until it goes on.
//
// Pure, as the sequencer that it serves: no socket and no clock.
namespace tessel::receiver {

constexpr std::size_t lines_max = 16;
// Numbers of which it is remembered which line brought them, 16 bytes each, the latest ones; a power of two.
// A copy that comes later than this many numbers is not counted.
constexpr std::uint64_t remembered_copies = 1u << 20;

// In messages, over all runs.
struct LineCounters {
    std::uint64_t first = 0;         // brought before any other line
    std::uint64_t second = 0;        // brought after another line
    std::int64_t behind_ns_max = 0;  // the most that one of these came after the first copy
};

struct Line {
    // One past the highest number that the line is known to have passed in this run.
    std::uint64_t passed = 0;
    // Since when another line is ahead and this one has brought nothing new; -1: none is ahead.
    std::int64_t behind_since_ms = -1;
    // After a restart that another line showed first: one past the highest number in the run before, while
    // the line still carries that one, until old_end_ms at the latest; 0: it does not.
    std::uint64_t old_passed = 0;
    std::int64_t old_end_ms = 0;
    RestartSigns signs;
    LineCounters counters;
};

// Who brought a number.
struct Copies {
    std::uint32_t cycle = 0;  // 1 + number / remembered_copies; 0: none yet
    std::uint16_t run = 0;
    std::uint16_t lines = 0;    // a bit for each line that has brought it
    std::int64_t first_ns = 0;  // when the first copy arrived
};

struct LineArbiter {
    std::vector<Line> lines;
    std::vector<Copies> copies;  // by number modulo remembered_copies; empty with one line
    std::uint16_t run = 0;
    std::uint64_t origin = 0;          // the number that this run began with
    std::uint64_t numbers_before = 0;  // known numbers of the runs before
};

// For `lines` lines; less than one counts as one, more than lines_max as lines_max.
LineArbiter make_arbiter(std::size_t lines);

// Reception of a run begins with number `origin` on every line.
void begin_run(LineArbiter& arbiter, std::uint64_t origin);

// The run is over, of which the numbers below `highest` are known. Until `old_end_ms` lines may still carry
// it.
void end_run(LineArbiter& arbiter, std::uint64_t highest, std::int64_t old_end_ms);

// The line brought the messages [first, end), stamped `stamp_ns`: counts them. True when it had not brought
// all of them before.
bool note_copies(LineArbiter& arbiter, std::size_t line, std::uint64_t first, std::uint64_t end,
                 std::int64_t stamp_ns);

// The line has passed all numbers below `end`; `highest` is one past the highest number known on any line.
void note_progress(LineArbiter& arbiter, Line& line, std::uint64_t end, std::uint64_t highest,
                   std::int64_t now_ms);

// One past the highest number that every line has passed, at most `highest`.
std::uint64_t passed_by_all(const LineArbiter& arbiter, std::uint64_t highest, std::int64_t now_ms,
                            std::int64_t patience_ms);

// Milliseconds until a line's patience is over, should it bring nothing new; INT64_MAX when no line
// lags.
std::int64_t next_stall_ms(const LineArbiter& arbiter, std::int64_t now_ms, std::int64_t patience_ms);

}  // namespace tessel::receiver
