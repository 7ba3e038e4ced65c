#pragma once

#include "market/instrument.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace tessel {

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
// O(centers x levels); market/quote_index has the same in fewer steps.
void build_levels(const Instrument& instrument, char side, std::size_t most, PriceLevels& levels);

}  // namespace tessel
