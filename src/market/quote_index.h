#pragma once

#include "market/instrument.h"
#include "market/nbbo.h"
#include "market/quote_block.h"

#include <cstddef>
#include <cstdint>

namespace tessel {

// A block of centers that don't count.
QuoteBlock empty_quote_block();

// Enters what the quote of one slot now counts with. To be called after every change of a quote.
void index_quote(const ParticipantQuote& quote, QuoteBlock* blocks, std::size_t slot);

// The best odd-lot orders inside the NBBO, over all centers, present or not. A size of 0 is a side without
// one, with price 0 and a blank center.
struct BestOddLot {
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint32_t sizes = 0;  // bid in the upper 16 bits, ask in the lower
    char bid_mc = ' ';
    char ask_mc = ' ';
};

struct BestQuotes {
    Nbbo nbbo;  // as compute_nbbo gives it
    BestOddLot odd_lot;
};

// Both from the index, in steps that don't depend on which center is best.
BestQuotes find_best_quotes(const Instrument& instrument);

}  // namespace tessel
