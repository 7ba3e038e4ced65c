#pragma once

#include "market/best_quotes.h"
#include "market/instrument.h"
#include "market/price_levels.h"
#include "market/quote_block.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace tessel {

// The indexed searches. Each gives what market/nbbo and market/price_levels give, in steps that don't depend
// on which center is best, and turns to them where the index does not hold the whole of it.

// A block of centers that don't count.
QuoteBlock empty_quote_block();

// Enters what the quote of one slot now counts with. To be called after every change of a quote.
void index_quote(const ParticipantQuote& quote, QuoteBlock* blocks, std::size_t slot);

// The NBBO and the best odd-lot orders inside it.
BestQuotes find_best_quotes(const Instrument& instrument);

// The levels of one side by their distance in cents from the best price; the buckets in use, a bit each, are
// the levels in order, at most QuoteBlock::centers of them.
struct LevelBuckets {
    std::int64_t best;  // cents: the price of bucket 0, when there is one
    std::uint64_t used;
    std::array<std::uint8_t, 64> lots;  // of 100 shares, at most level_lots_max
};

constexpr std::size_t level_lots_max = QuoteBlock::centers * quote_lots_indexed;

// The levels of both sides, as build_levels has them, from the index. False when it does not hold them: with
// more than eight centers, odd conditions or sizes, or a quote far from the best.
bool fill_level_buckets(const Instrument& instrument, LevelBuckets& bids, LevelBuckets& asks);

// What build_levels gives for both sides, at most `most` levels each.
void list_levels(const Instrument& instrument, std::size_t most, PriceLevels& bids, PriceLevels& asks);

}  // namespace tessel
