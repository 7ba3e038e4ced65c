#pragma once

#include "market/instrument.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace tessel {

struct Nbbo {
    std::int64_t bid = 0;  // millionths of a dollar, 0: no side
    std::int64_t ask = 0;
    std::uint32_t bid_size = 0;  // of all centres at the best price
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
    std::uint64_t size;  // shares, all centres
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

// The same levels of one side before they are listed. Quotes lie within cents of the NBBO: each has added its
// size to the bucket of its distance from there, and the buckets in use, a bit each, are the levels in order.
struct LevelBuckets {
    std::int64_t first;  // the price of bucket 0
    std::int64_t step;   // from bucket to bucket: a cent down for bids, up for asks
    std::uint64_t used;
    std::array<std::uint32_t, 64> sizes;  // shares
};

// False when a quote lies too far off for a bucket.
bool fill_buckets(const Instrument& instrument, char side, LevelBuckets& buckets);

// Takes out the best level left; there is one.
inline PriceLevel take_level(LevelBuckets& buckets) {
    const int bucket = std::countr_zero(buckets.used);
    buckets.used &= buckets.used - 1;
    return {buckets.first + bucket * buckets.step, buckets.sizes[static_cast<std::size_t>(bucket)]};
}

// The quote's LULD BBO indicator: 'A' bid above the band, 'B' ask below it, 'C' both, else (or without a
// band) a blank.
char luld_bbo_indicator(const Instrument& instrument, std::int64_t bid, std::int64_t ask);

// The national BBO's LULD indicator, 'A' to 'I'; a blank without an active band.
char luld_nbbo_indicator(const Instrument& instrument, const Nbbo& nbbo);

}  // namespace tessel
