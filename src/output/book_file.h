#pragma once

#include "market/instrument.h"

#include <cstdint>
#include <span>
#include <string>

namespace tessel {

// A descriptor kept for the files below: connections may take every other one that the process can have.
// -1: not open. Whoever owns it closes it.
struct ReserveDescriptor {
    int fd = -1;
};

// Opens the reserve unless it is open. When there is no descriptor left it stays closed, and nothing is
// reported.
void open_reserve(ReserveDescriptor& reserve);

// Writes all of text to path + ".tmp" and renames it over path, so that a reader never sees half of it. Never
// waits: a .tmp that is no regular file (a FIFO, a device) is one that cannot be written. A file that cannot
// be opened is still renamed (a stale .tmp may exist); one that could not be written whole is removed and not
// renamed. Failures are not reported: the next turn comes in 250 ms. Out of descriptors, the file is opened
// in place of the reserve, which is open again afterwards.
void replace_file(const std::string& path, const std::string& text, ReserveDescriptor& reserve);

// {"ts_ns":...,"symbols":{"AAPL":{"bid":[[190.01,300]],"ask":[[190.03,200]],"last":190.02,"volume":5000,
// "status":"T"}}} on one line and a line feed, at most 5 levels a side. text is reused from turn to turn.
void format_book(std::string& text, std::span<const Instrument> instruments, std::uint64_t now_ns);

// A line for each instrument: symbol, best bid, best offer ("AAPL 190.01 190.03").
void format_bbo(std::string& text, std::span<const Instrument> instruments);

// One member of the book's "symbols".
void append_book_member(std::string& text, const Instrument& instrument);

}  // namespace tessel
