#pragma once

#include "engine/sip_engine.h"

#include <cstdint>
#include <string_view>

namespace tessel {

// Announces a change of the trading status: counts the action, sets status and reason, sends the message and
// writes its truth line. reason: up to 6 characters are sent.
void send_trading_action(SipEngine& engine, Instrument& instrument, char action, std::string_view reason,
                         std::uint64_t time_ns);

}  // namespace tessel
