#pragma once

#include "market/instrument.h"

#include <cstdint>

namespace tessel {

// The quote's LULD BBO indicator: 'A' bid above the band, 'B' ask below it, 'C' both, otherwise (or without a
// band) a blank.
char luld_bbo_indicator(const Instrument& instrument, std::int64_t bid, std::int64_t ask);

// The national BBO's LULD indicator, 'A' to 'I'; a blank without an active band.
char luld_nbbo_indicator(const Instrument& instrument, const Nbbo& nbbo);

}  // namespace tessel
