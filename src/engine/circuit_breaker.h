#pragma once

#include "engine/sip_engine.h"

#include <cstdint>

namespace tessel {

// Declares a market-wide circuit breaker and halts every instrument that is not halted or paused: for 5 s
// below level 3, else without end.
void breach_mwcb(SipEngine& engine, std::uint32_t level);

}  // namespace tessel
