#include "market/nbbo.h"

#include <algorithm>
#include <array>

namespace tessel {

namespace {

constexpr std::uint32_t round_lot = 100;

// 1 for the conditions whose quotes can set the NBBO.
constexpr std::array<unsigned char, 256> make_eligible() {
    std::array<unsigned char, 256> eligible{};
    for (const char letter : {'A', 'B', 'H', 'O', 'R', 'Y'}) {
        eligible[static_cast<unsigned char>(letter)] = 1;
    }
    return eligible;
}

constexpr std::array<unsigned char, 256> eligible_conditions = make_eligible();

// The total size and the centre of one side's best price.
struct BestSide {
    std::uint32_t total = 0;
    std::uint32_t largest = 0;
    std::uint64_t earliest = 0;
    char mc = ' ';
};

// Takes a centre that quotes at the best price into the side. Centres come in letter order: on a full tie the first stays.
void join_side(BestSide& side, std::uint32_t size, std::uint64_t time, char mc) {
    side.total += size;
    if (size > side.largest || (size == side.largest && time < side.earliest)) {
        side.largest = size;
        side.earliest = time;
        side.mc = mc;
    }
}

} // namespace

bool is_eligible_condition(char condition) {
    return eligible_conditions[static_cast<unsigned char>(condition)] != 0;
}

Nbbo compute_nbbo(const Instrument& instrument) {
    // Without a band every price is inside.
    const bool banded = has_active_band(instrument);
    const std::int64_t highest_bid = banded ? instrument.luld_upper : INT64_MAX;
    const std::int64_t lowest_ask = banded ? instrument.luld_lower : 1;
    const auto bid_counts = [highest_bid](const ParticipantQuote& quote) {
        return quote.present && is_eligible_condition(quote.condition) && quote.bid >= 1 && quote.bid_size >= round_lot &&
               quote.bid <= highest_bid;
    };
    const auto ask_counts = [lowest_ask](const ParticipantQuote& quote) {
        return quote.present && is_eligible_condition(quote.condition) && quote.ask >= 1 && quote.ask_size >= round_lot &&
               quote.ask >= lowest_ask;
    };

    Nbbo nbbo;
    const ParticipantQuote* const end = instrument.quotes + instrument.quote_slots;
    for (const ParticipantQuote* quote = instrument.quotes; quote != end; ++quote) {
        if (bid_counts(*quote) && quote->bid > nbbo.bid) {
            nbbo.bid = quote->bid;
        }
        if (ask_counts(*quote) && (nbbo.ask == 0 || quote->ask < nbbo.ask)) {
            nbbo.ask = quote->ask;
        }
    }
    BestSide bid_side;
    BestSide ask_side;
    for (const ParticipantQuote* quote = instrument.quotes; quote != end; ++quote) {
        if (quote->bid == nbbo.bid && bid_counts(*quote)) {
            join_side(bid_side, quote->bid_size, quote->time, quote->mc);
        }
        if (quote->ask == nbbo.ask && ask_counts(*quote)) {
            join_side(ask_side, quote->ask_size, quote->time, quote->mc);
        }
    }
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
