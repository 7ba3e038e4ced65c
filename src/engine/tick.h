#pragma once

#include "engine/sip_engine.h"

#include <cstdint>

namespace tessel {

// One step of the market: timed resumptions, price moves, quotes, trades and bands of every instrument, then
// a flush. now_ms is the loop's steady time.
void run_tick(SipEngine& engine, std::uint64_t now_ms);

}  // namespace tessel
