#include "mold/line_arbiter.h"

#include <algorithm>

namespace tessel::receiver {

namespace {

bool is_stalled(const Line& line, std::int64_t now_ms, std::int64_t patience_ms) {
    return line.behind_since_ms >= 0 && now_ms - line.behind_since_ms >= patience_ms;
}

}  // namespace

LineArbiter make_arbiter(std::size_t lines) {
    LineArbiter arbiter;
    arbiter.lines.resize(std::clamp<std::size_t>(lines, 1, lines_max));
    if (arbiter.lines.size() > 1) {
        arbiter.copies.resize(remembered_copies);
    }
    return arbiter;
}

void begin_run(LineArbiter& arbiter, std::uint64_t origin) {
    arbiter.origin = origin;
    ++arbiter.run;
    for (Line& line : arbiter.lines) {
        line.passed = origin;
        line.behind_since_ms = -1;
        line.signs = {};
    }
}

void end_run(LineArbiter& arbiter, std::uint64_t highest, std::int64_t old_end_ms) {
    arbiter.numbers_before += highest - arbiter.origin;
    for (Line& line : arbiter.lines) {
        line.old_passed = line.signs.reached ? line.passed : 0;
        line.old_end_ms = old_end_ms;
    }
}

bool note_copies(LineArbiter& arbiter, std::size_t line, std::uint64_t first, std::uint64_t end,
                 std::int64_t stamp_ns) {
    const auto bit = static_cast<std::uint16_t>(1u << line);
    LineCounters& counters = arbiter.lines[line].counters;
    bool was_new = false;
    for (std::uint64_t number = std::max(first, arbiter.origin); number < end; ++number) {
        Copies& copies = arbiter.copies[number % remembered_copies];
        const auto cycle = static_cast<std::uint32_t>(number / remembered_copies + 1);
        if (copies.run != arbiter.run || copies.cycle < cycle) {
            copies = {cycle, arbiter.run, bit, stamp_ns};
            ++counters.first;
            was_new = true;
        } else if (copies.cycle == cycle && (copies.lines & bit) == 0) {
            copies.lines |= bit;
            ++counters.second;
            counters.behind_ns_max = std::max(counters.behind_ns_max, stamp_ns - copies.first_ns);
            was_new = true;
        }
    }
    return was_new;
}

void note_progress(LineArbiter& arbiter, Line& line, std::uint64_t end, std::uint64_t highest,
                   std::int64_t now_ms) {
    if (end > line.passed) {
        line.passed = end;
        line.behind_since_ms = -1;
    }
    for (Line& each : arbiter.lines) {
        if (each.passed >= highest) {
            each.behind_since_ms = -1;
        } else if (each.behind_since_ms < 0) {
            each.behind_since_ms = now_ms;
        }
    }
}

std::uint64_t passed_by_all(const LineArbiter& arbiter, std::uint64_t highest, std::int64_t now_ms,
                            std::int64_t patience_ms) {
    std::uint64_t least = highest;
    for (const Line& line : arbiter.lines) {
        if (!is_stalled(line, now_ms, patience_ms)) {
            least = std::min(least, line.passed);
        }
    }
    return least;
}

std::int64_t next_stall_ms(const LineArbiter& arbiter, std::int64_t now_ms, std::int64_t patience_ms) {
    std::int64_t least = INT64_MAX;
    for (const Line& line : arbiter.lines) {
        if (line.behind_since_ms >= 0 && !is_stalled(line, now_ms, patience_ms)) {
            least = std::min(least, line.behind_since_ms + patience_ms - now_ms);
        }
    }
    return least;
}

}  // namespace tessel::receiver
