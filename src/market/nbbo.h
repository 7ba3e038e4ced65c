#pragma once

#include "market/instrument.h"
#include "market/quote_block.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace tessel {

struct Nbbo {
    std::int64_t bid = 0;  // millionths of a dollar, 0: no side
    std::int64_t ask = 0;
    std::uint32_t bid_size = 0;  // of all centers at the best price
    std::uint32_t ask_size = 0;
    char bid_mc = ' ';  // the largest at the best price, then the earliest, then the first letter
    char ask_mc = ' ';
};

// Whether quotes of this condition can set the NBBO: A B H O R Y.
bool is_eligible_condition(char condition);

// The national best bid and offer over the instrument's present quotes of an eligible condition (A B H O R Y)
// and at least a round lot; with an active band, bids above its upper and asks below its lower price don't
// count.
Nbbo compute_nbbo(const Instrument& instrument);

// The NBBO that the instrument holds, as last published.
Nbbo stored_nbbo(const Instrument& instrument);

struct PriceLevel {
    std::int64_t price;
    std::uint64_t size;  // shares, all centers
};

constexpr std::size_t truth_levels_max = 10;
constexpr std::size_t book_levels_max = 5;

struct PriceLevels {
    std::array<PriceLevel, truth_levels_max> level;  // the first count are set
    std::size_t count = 0;
};

// The aggregated levels of one side ('B' or 'A'), best first, at most `most` (at most truth_levels_max):
// every present quote of any condition with a price and a size above 0. Odd-lot orders are not in it.
void build_levels(const Instrument& instrument, char side, std::size_t most, PriceLevels& levels);

// The levels of one side by their distance in cents from the best price; the buckets in use, a bit each, are
// the levels in order, at most QuoteBlock::centers of them.
struct LevelBuckets {
    std::int64_t best;  // cents: the price of bucket 0, when there is one
    std::uint64_t used;
    std::array<std::uint8_t, 64> lots;  // of 100 shares, at most level_lots_max
};

constexpr std::size_t level_lots_max = QuoteBlock::centers * quote_lots_indexed;

// The levels of both sides, as build_levels has them, from the index. False when they can't be told from it:
// with more than eight centers, odd conditions or sizes, or a quote far from the best.
bool fill_level_buckets(const Instrument& instrument, LevelBuckets& bids, LevelBuckets& asks);

// What build_levels gives for both sides, from the index where it can tell.
void list_levels(const Instrument& instrument, std::size_t most, PriceLevels& bids, PriceLevels& asks);

// The quote's LULD BBO indicator: 'A' bid above the band, 'B' ask below it, 'C' both, else (or without a
// band) a blank.
char luld_bbo_indicator(const Instrument& instrument, std::int64_t bid, std::int64_t ask);

// The national BBO's LULD indicator, 'A' to 'I'; a blank without an active band.
char luld_nbbo_indicator(const Instrument& instrument, const Nbbo& nbbo);

}  // namespace tessel
