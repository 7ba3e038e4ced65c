#pragma once

#include "market/instrument.h"

#include <cstdint>
#include <span>
#include <string>

namespace tessel {

// Writes all of text to path + ".tmp" and renames it over path, so that a reader never sees half of it. A
// file that cannot be opened is still renamed (an older twin may stand there); one that could not be written
// whole is removed and not renamed. Failures are not reported: the next turn comes in 250 ms.
void replace_file(const std::string& path, const std::string& text);

// {"ts_ns":...,"symbols":{"AAPL":{"bid":[[190.01,300]],"ask":[[190.03,200]],"last":190.02,"volume":5000,
// "status":"T"}}} on one line and a line feed, at most 5 levels a side. text is reused from turn to turn.
void format_book(std::string& text, std::span<const Instrument> instruments, std::uint64_t now_ns);

// A line for each instrument: symbol, best bid, best offer ("AAPL 190.01 190.03").
void format_bbo(std::string& text, std::span<const Instrument> instruments);

// One member of the book's "symbols".
void append_book_member(std::string& text, const Instrument& instrument);

}  // namespace tessel
