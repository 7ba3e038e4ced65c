#pragma once

#include <xmmintrin.h>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace tessel {

// What the NBBO, the best odd-lot orders and the price levels need of eight centers, side by side, so that
// four prices or sixteen sizes are compared in one step. A quote's line is then only written on the way of a
// quote, never read.
//
// Prices are cents as floats, which every x86-64 compares in fours; they are exact up to 2^24 cents, and asks
// and odd-lot asks stand negated, so that on both sides the highest is the best. A center that doesn't count
// on a side (not present, an ineligible condition, less than a round lot) stands there with a price that
// never wins and no lots; so do the places behind the last center. Bands are not looked at here.
struct alignas(64) QuoteBlock {
    static constexpr std::size_t centers = 8;
    std::array<float, centers> bid;
    std::array<float, centers> ask;
    std::array<float, centers> odd_bid;
    std::array<float, centers> odd_ask;
    std::array<std::uint8_t, 2 * centers> lots;       // of 100 shares; bids, then asks
    std::array<std::uint8_t, 2 * centers> odd_sizes;  // 1 to 99 shares; bids, then asks
    std::array<char, centers> mc;
    std::uint8_t inexact;   // a bit for each center whose prices or sizes have no place here
    std::uint8_t unlisted;  // a bit for each whose quote makes a price level without counting for the NBBO
    std::array<std::uint64_t, centers> time;  // of the quote
};
static_assert(sizeof(QuoteBlock) == 256);

// Blocks that so many quote slots take.
constexpr std::size_t quote_blocks(std::size_t slots) {
    return (slots + QuoteBlock::centers - 1) / QuoteBlock::centers;
}

constexpr std::uint32_t quote_lots_indexed = 12;       // a larger quote of one center has no place in a block
constexpr std::int64_t quote_cents_indexed = 1 << 24;  // floats hold every whole number up to here

// The price that never wins, and what it converts to.
constexpr float never_cents = -std::numeric_limits<float>::infinity();
constexpr std::int32_t no_cents = std::numeric_limits<std::int32_t>::min();

using BlockPrices = std::array<float, QuoteBlock::centers>;

// The prices of eight centers, in two registers.
struct EightPrices {
    __m128 low;
    __m128 high;
};

[[gnu::always_inline]] inline EightPrices load_prices(const BlockPrices& prices) {
    return {_mm_load_ps(prices.data()), _mm_load_ps(prices.data() + 4)};
}

[[gnu::always_inline]] inline __m128 higher_of_pairs(const EightPrices& prices) {
    return _mm_max_ps(prices.low, prices.high);
}

// The highest of the bids in the lanes 0 and 2, of the asks in 1 and 3, each of one half.
[[gnu::always_inline]] inline __m128 pair_up(__m128 bids, __m128 asks) {
    return _mm_max_ps(_mm_unpacklo_ps(bids, asks), _mm_unpackhi_ps(bids, asks));
}

template <int lane>
[[gnu::always_inline]] inline __m128 splat(__m128 value) {
    return _mm_shuffle_ps(value, value, _MM_SHUFFLE(lane, lane, lane, lane));
}

}  // namespace tessel
