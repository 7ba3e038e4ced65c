#pragma once

#include "engine/sip_engine.h"

#include <cstdint>

namespace tessel {

enum class TradeKind { exchange = 0, trf = 1, cross = 2 };  // cross: also the official close

// Everything that happens when a trade prints: id, statistics, message, history, truth line, counters, and
// the cancels, corrections and as-of trades that fall due with it. price in millionths, shares whole,
// conditions 4 characters, participant_time wall-clock ns.
void record_trade(SipEngine& engine, Instrument& instrument, char market_center, char sub_market_center,
                  std::int64_t price, std::uint64_t shares, const char* conditions, char trade_through_exempt,
                  std::uint64_t participant_time, TradeKind kind);

// The random exchange print of a tick: draws whether, on which side, and what kind.
void maybe_exchange_print(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns);

// A TRF print at a price inside the NBBO, the TRFs taking turns.
void trf_print(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns);

// The crosses, all on market center 'Q' at the cross price.
// Reopening trade, 3000 shares, "@5  ".
void reopening_cross(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns);
// Closing trade, 8000 shares, "@6  ", then the official close, "@  M".
void closing_cross(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns);
// Opening trade, 5000 shares, "@O  ": at the midpoint when there is a bid, else at the reference price.
void opening_cross(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns);

}  // namespace tessel
