#pragma once

#include <cstdint>

namespace tessel {

// The national best bid and offer. A price of 0 is a side that there is none of, with size 0 and a blank
// center.
struct Nbbo {
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint32_t bid_size = 0;  // of all centers at the best price
    std::uint32_t ask_size = 0;
    // The center of the largest quote at the best price, then of the earliest, then the first letter.
    char bid_market_center = ' ';
    char ask_market_center = ' ';

    bool operator==(const Nbbo& other) const = default;
};

// The best odd-lot orders inside the NBBO, over all centers, present or not. A size of 0 is a side without
// one, with price 0 and a blank center.
struct BestOddLot {
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint16_t bid_size = 0;  // 1 to 99
    std::uint16_t ask_size = 0;
    char bid_market_center = ' ';
    char ask_market_center = ' ';

    bool operator==(const BestOddLot& other) const = default;
};

struct BestQuotes {
    Nbbo nbbo;
    BestOddLot odd_lot;
};

inline bool is_none(const Nbbo& nbbo) {
    return nbbo.bid == 0 && nbbo.ask == 0;
}

inline bool is_none(const BestOddLot& best) {
    return best.bid_size == 0 && best.ask_size == 0;
}

}  // namespace tessel
