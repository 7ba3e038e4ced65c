#pragma once

#include "market/instrument.h"
#include "market/nbbo.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace tessel {

// What the NBBO and the best odd-lot search need of eight centres, side by side, so that eight are compared
// in four steps of two. Prices and sizes are doubles because every x86-64 compares those in pairs: a price is
// a multiple of 10,000 of at most 10^16 millionths and so exact.
//
// A centre that doesn't count on a side (not present, an ineligible condition, less than a round lot) stands
// there with a price that never wins and a size of 0; so do the places behind the last centre. Bands are not
// looked at here.
struct alignas(64) QuoteBlock {
    static constexpr std::size_t centres = 8;
    std::array<double, centres> bid;
    std::array<double, centres> ask;
    std::array<double, centres> bid_size;
    std::array<double, centres> ask_size;
    std::array<double, centres> odd_bid;
    std::array<double, centres> odd_ask;
};

// Blocks that so many quote slots take.
constexpr std::size_t quote_blocks(std::size_t slots) {
    return (slots + QuoteBlock::centres - 1) / QuoteBlock::centres;
}

// A block of centres that don't count.
QuoteBlock empty_quote_block();

// Enters what the quote of one slot now counts with. To be called after every change of a quote.
void index_quote(const ParticipantQuote& quote, QuoteBlock* blocks, std::size_t slot);

// The NBBO, as compute_nbbo gives it, from the index. O(slots), without a branch on chance but for equal
// sizes.
Nbbo indexed_nbbo(const Instrument& instrument, const QuoteBlock* blocks);

// The best odd-lot orders inside the NBBO, over all centres, present or not. A size of 0 is a side without
// one, with price 0 and a blank centre.
struct BestOddLot {
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint32_t sizes = 0;  // bid in the upper 16 bits, ask in the lower
    char bid_mc = ' ';
    char ask_mc = ' ';
};

BestOddLot indexed_best_odd_lot(const Instrument& instrument, const QuoteBlock* blocks, const Nbbo& nbbo);

}  // namespace tessel
