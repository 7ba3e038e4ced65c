#pragma once

#include "engine/sip_engine.h"
#include "receiver/market_state.h"
#include "snapshot/spin.h"

#include <string>

namespace tessel::testing {

// How a receiver that joined late differs from one that saw everything: quotes with conditions, sizes
// and odd-lot lists, NBBO, best odd-lot quote, trading status with reason and action number, price band,
// directory, open centers, decline levels. Empty when not at all. A spin carries no trades, no reason of an
// instrument that trades and no band whose lower price is 0: reason and action number of a trading instrument
// are compared once the joiner has seen an action of it.
std::string joiner_difference(const receiver::Market& whole, const receiver::Market& joined);

// How a receiver that saw everything differs from the feed's own market. Empty when not at all.
std::string engine_difference(const SipEngine& engine, const receiver::Market& whole);

// Applies a spin, its end-of-snapshot message included, to an empty market. Returns what could not be
// decoded.
std::string apply_spin(receiver::Market& market, const SpinBuffer& spin);

}  // namespace tessel::testing
