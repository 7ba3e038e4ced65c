#pragma once

#include "engine/sip_engine.h"

#include <cstdint>

namespace tessel {

// Each acts on the newest eligible trade of the instrument, or on none when there is no such trade.
// participant_time is that of the trade which triggered it.
void cancel_trade(SipEngine& engine, Instrument& instrument, std::uint64_t participant_time);
void correct_trade(SipEngine& engine, Instrument& instrument, std::uint64_t participant_time);

// A late report of a trade of yesterday, three cents below the reference price; flushes the open packet.
void emit_asof(SipEngine& engine, Instrument& instrument);

}  // namespace tessel
