#pragma once

#include "output/truth_log.h"

#include <cstdint>
#include <string_view>

namespace tessel {

// The truth log's quote line, the one that is written with nearly every message: an instrument's levels,
// NBBO, active band and status under the number of the message that they follow.
void write_quote_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence);

// The same with the members of a price band (,"ap":"B") or of a trading action (,"ah":"H","reason":"T1").
void write_band_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence, char indicator);
void write_action_line(TruthLog& truth, const Instrument& instrument, std::uint64_t sequence, char action,
                       std::string_view reason);

}  // namespace tessel
