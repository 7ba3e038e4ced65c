#include "market/nbbo.h"

#include <algorithm>

namespace tessel {

namespace {

constexpr std::uint32_t round_lot = 100;

constexpr std::uint32_t condition_bit(char letter) {
    return std::uint32_t{1} << (letter - 'A');
}

constexpr std::uint32_t eligible_conditions = condition_bit('A') | condition_bit('B') | condition_bit('H') |
                                              condition_bit('O') | condition_bit('R') | condition_bit('Y');

bool is_eligible(const ParticipantQuote& quote) {
    const unsigned letter = static_cast<unsigned char>(quote.condition) - unsigned{'A'};
    return quote.present && letter < 32 && (eligible_conditions >> (letter & 31) & 1) != 0;
}

// Best price, its total size and its centre on one side, as pass 2 gathers them.
struct BestSide {
    std::uint32_t total = 0;
    std::uint32_t largest = 0;
    std::uint64_t earliest = 0;
    char mc = ' ';
};

// Takes one counting quote at the best price into the side. Slots come in letter order, so on a full tie the first stays.
void join_side(BestSide& side, std::uint32_t size, std::uint64_t time, char mc) {
    side.total += size;
    const bool better = size > side.largest || (size == side.largest && time < side.earliest);
    side.largest = better ? size : side.largest;
    side.earliest = better ? time : side.earliest;
    side.mc = better ? mc : side.mc;
}

} // namespace

Nbbo compute_nbbo(const Instrument& instrument) {
    // Without a band every price is inside.
    const bool banded = has_active_band(instrument);
    const std::int64_t highest_bid = banded ? instrument.luld_upper : INT64_MAX;
    const std::int64_t lowest_ask = banded ? instrument.luld_lower : 1;
    const auto bid_counts = [highest_bid](const ParticipantQuote& quote) {
        return quote.bid >= 1 && quote.bid_size >= round_lot && quote.bid <= highest_bid && is_eligible(quote);
    };
    const auto ask_counts = [lowest_ask](const ParticipantQuote& quote) {
        return quote.ask >= 1 && quote.ask_size >= round_lot && quote.ask >= lowest_ask && is_eligible(quote);
    };

    const ParticipantQuote* const end = instrument.quotes + instrument.quote_slots;
    std::int64_t best_bid = 0;
    std::int64_t best_ask = INT64_MAX;
    for (const ParticipantQuote* quote = instrument.quotes; quote != end; ++quote) {
        const std::int64_t bid = bid_counts(*quote) ? quote->bid : 0;
        const std::int64_t ask = ask_counts(*quote) ? quote->ask : INT64_MAX;
        best_bid = std::max(best_bid, bid);
        best_ask = std::min(best_ask, ask);
    }

    BestSide bid_side;
    BestSide ask_side;
    for (const ParticipantQuote* quote = instrument.quotes; quote != end; ++quote) {
        if (quote->bid == best_bid && bid_counts(*quote)) {
            join_side(bid_side, quote->bid_size, quote->time, quote->mc);
        }
        if (quote->ask == best_ask && ask_counts(*quote)) {
            join_side(ask_side, quote->ask_size, quote->time, quote->mc);
        }
    }

    Nbbo nbbo;
    nbbo.bid = best_bid;
    nbbo.ask = best_ask == INT64_MAX ? 0 : best_ask;
    nbbo.bid_size = bid_side.total;
    nbbo.ask_size = ask_side.total;
    nbbo.bid_mc = bid_side.mc;
    nbbo.ask_mc = ask_side.mc;
    return nbbo;
}

Nbbo stored_nbbo(const Instrument& instrument) {
    return {instrument.nbbo_bid,      instrument.nbbo_ask,    instrument.nbbo_bid_size,
            instrument.nbbo_ask_size, instrument.nbbo_bid_mc, instrument.nbbo_ask_mc};
}

void build_levels(const Instrument& instrument, char side, std::size_t most, PriceLevels& levels) {
    const bool bids = side == 'B';
    levels.count = 0;
    const ParticipantQuote* const end = instrument.quotes + instrument.quote_slots;
    for (const ParticipantQuote* quote = instrument.quotes; quote != end; ++quote) {
        const std::int64_t price = bids ? quote->bid : quote->ask;
        const std::uint32_t size = bids ? quote->bid_size : quote->ask_size;
        if (!quote->present || price <= 0 || size == 0) {
            continue;
        }
        std::size_t at = 0;
        while (at < levels.count && (bids ? levels.level[at].price > price : levels.level[at].price < price)) {
            ++at;
        }
        if (at < levels.count && levels.level[at].price == price) {
            levels.level[at].size += size;
            continue;
        }
        if (at == most) {
            continue;
        }
        // One level more; the worst falls off when there are enough.
        levels.count = std::min(levels.count + 1, most);
        for (std::size_t behind = levels.count - 1; behind > at; --behind) {
            levels.level[behind] = levels.level[behind - 1];
        }
        levels.level[at] = {price, size};
    }
}

char luld_bbo_indicator(const Instrument& instrument, std::int64_t bid, std::int64_t ask) {
    if (!has_active_band(instrument)) {
        return ' ';
    }
    const bool bid_above = bid > instrument.luld_upper;
    const bool ask_below = ask > 0 && ask < instrument.luld_lower;
    if (bid_above) {
        return ask_below ? 'C' : 'A';
    }
    return ask_below ? 'B' : ' ';
}

char luld_nbbo_indicator(const Instrument& instrument, const Nbbo& nbbo) {
    if (!has_active_band(instrument)) {
        return ' ';
    }
    const std::int64_t lower = instrument.luld_lower;
    const std::int64_t upper = instrument.luld_upper;
    const bool bid_at_upper = nbbo.bid >= 1 && nbbo.bid == upper;
    const bool bid_below_lower = nbbo.bid > 0 && nbbo.bid < lower;
    const bool ask_at_lower = nbbo.ask > 0 && nbbo.ask == lower;
    const bool ask_above_upper = nbbo.ask > upper;
    if (bid_at_upper) {
        return ask_at_lower ? 'I' : ask_above_upper ? 'G' : 'E';
    }
    if (ask_at_lower) {
        return bid_below_lower ? 'H' : 'F';
    }
    if (ask_above_upper) {
        return bid_below_lower ? 'D' : 'C';
    }
    return bid_below_lower ? 'B' : 'A';
}

} // namespace tessel
