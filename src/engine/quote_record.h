#pragma once

#include "market/best_quotes.h"
#include "market/instrument.h"
#include "wire/quote_messages.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace tessel {

// How a quote becomes a QuoteRecord, for the quotes of a tick and for those of a snapshot. Each function
// fills its part of the record; indicators are chosen by the caller, except that of the ADF's MPIDs.

// Everything that comes from the market center's quote itself; participant_time is also the ADF's time. Odd
// lots are not in it.
void set_quote_part(QuoteRecord& record, const Instrument& instrument, const ParticipantQuote& quote,
                    std::uint64_t participant_time);

// The NBBO appendage.
void set_nbbo_part(QuoteRecord& record, const Nbbo& nbbo);

// The best odd-lot appendage.
void set_best_odd_lot_part(QuoteRecord& record, const BestOddLot& best);

// Whether the quote's MPIDs go with the best odd lot: one side is the ADF's.
bool has_mpids(const BestOddLot& best);

// Whether this quote is the whole NBBO, both sides of it.
bool is_whole_nbbo(const ParticipantQuote& quote, const Nbbo& nbbo);

// The quote's odd-lot orders as records, bid first; returns their number (0 or 2).
using OddLotList = std::array<OddLotQuote, 2>;
std::size_t list_odd_lots(const ParticipantQuote& quote, OddLotList& list);

}  // namespace tessel
