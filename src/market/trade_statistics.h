#pragma once

#include "market/instrument.h"
#include "wire/trade_messages.h"

#include <cstdint>

namespace tessel {

// Which statistics a trade's four sale conditions let it update.
struct Eligibility {
    bool high_low = false;
    bool last = false;
    bool volume = false;
};

Eligibility eligibility(const char* conditions);

// Slot of a market center's statistics in the instrument; null when the center has none at all.
ParticipantTradeStats* find_trade_stats(Instrument& instrument, char market_center);

// The consolidated and market-center updates of one trade; size in millionths of a share. stats may be null.
void apply_trade(Instrument& instrument, ParticipantTradeStats* stats, const Eligibility& eligible,
                 char market_center, std::int64_t price, std::uint64_t size);

// Sets the statistics back and replays every live trade, oldest first. O(trades), at most 100,000.
void recompute_statistics(Instrument& instrument);

// Next trade id of a (market center, sub-market center) key; ids start at 1.
std::uint64_t next_trade_id(Instrument& instrument, ParticipantTradeStats* stats, char market_center,
                            char sub_market_center);

StatisticsRecord consolidated_statistics(const Instrument& instrument);
// Zeros when there are none.
StatisticsRecord participant_statistics(const Instrument& instrument, char market_center);

}  // namespace tessel
