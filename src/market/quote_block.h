#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tessel {

// What the NBBO, the best odd-lot orders and the price levels need of eight centers, side by side, so that
// four prices or sixteen sizes are compared in one step. A quote's own record is then only written on the
// quote path, never read.
//
// Prices are cents as floats, which are exact up to 2^24 cents, and asks and odd-lot asks are negated, so
// that on both sides the highest is the best. A center that doesn't count on a side (not present, an
// ineligible condition, less than a round lot) has a price there that never wins and no lots; so have the
// places after the last center. Bands are not looked at here.
struct alignas(64) QuoteBlock {
    static constexpr std::size_t centers = 8;
    std::array<float, centers> bid;
    std::array<float, centers> ask;
    std::array<float, centers> odd_bid;
    std::array<float, centers> odd_ask;
    std::array<std::uint8_t, 2 * centers> lots;       // of 100 shares; bids, then asks
    std::array<std::uint8_t, 2 * centers> odd_sizes;  // 1 to 99 shares; bids, then asks
    std::array<char, centers> market_center;
    std::uint8_t fallback_bits;  // a bit for each center with a price or size that is not representable here
    // A bit for each whose quote makes a price level without counting for the NBBO.
    std::uint8_t levels_only_bits;
    std::array<std::uint64_t, centers> time;  // of the quote
};
static_assert(sizeof(QuoteBlock) == 256);

// Number of blocks for `slots` quote slots.
constexpr std::size_t quote_blocks(std::size_t slots) {
    return (slots + QuoteBlock::centers - 1) / QuoteBlock::centers;
}

// A larger quote uses the exact path. The model's quotes have at most 8 lots; 12 is as much as the text of a
// level's lots allows, eight centers' sum having at most two digits.
constexpr std::uint32_t quote_lots_indexed = 12;
constexpr std::int64_t quote_cents_indexed = 1 << 24;  // floats hold every whole number up to here

// The price that never wins, and what it converts to: below every price, and its distance from one fits 32
// bits.
constexpr std::int32_t no_cents = -(1 << 30);
constexpr auto never_cents = static_cast<float>(no_cents);

}  // namespace tessel
