#pragma once

#include <cstdint>
#include <string>

// What tessel-capture says about itself on standard error.
namespace tessel::capture {

struct Totals {
    std::uint64_t messages = 0;
    std::uint64_t packets = 0;  // frames of the capture
    std::uint64_t bytes = 0;    // of the capture, before compression
    std::uint64_t dropped = 0;
    std::uint64_t duplicated = 0;
    std::uint64_t reordered = 0;
    std::uint64_t market_ns = 0;  // simulated
    std::uint64_t work_ms = 0;    // real
};

// The last line of a run, without its line feed.
std::string summary_line(const Totals& totals);

// One line for a terminal, without a line feed: how far, how fast, how long still. `columns` is its width.
std::string progress_line(const Totals& totals, std::uint64_t duration_ns, std::size_t columns);

// A bar on standard error, when that is a terminal.
struct Progress {
    bool shown = false;  // whether standard error is a terminal
    std::uint64_t start_ms = 0;
    std::uint64_t next_ms = 0;
    unsigned passes = 0;  // since the clock was last looked at
};

void begin_progress(Progress& progress);

// Whether it is time to draw; cheap enough for every pass.
bool progress_due(Progress& progress);
void draw_progress(Progress& progress, const std::string& line);

// Removes the bar, before other lines are printed.
void clear_progress(Progress& progress);

}  // namespace tessel::capture
