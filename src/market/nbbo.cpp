#include "market/nbbo.h"

#include <array>

namespace tessel {

namespace {

// 1 for the conditions whose quotes can set the NBBO.
constexpr std::array<unsigned char, 256> make_eligible() {
    std::array<unsigned char, 256> eligible{};
    for (const char letter : {'A', 'B', 'H', 'O', 'R', 'Y'}) {
        eligible[static_cast<unsigned char>(letter)] = 1;
    }
    return eligible;
}

constexpr std::array<unsigned char, 256> eligible_conditions = make_eligible();

// The total size and the center of one side's best price.
struct BestSide {
    std::uint32_t total = 0;
    std::uint32_t largest = 0;
    std::uint64_t earliest = 0;
    char market_center = ' ';
};

// Takes a center that quotes at the best price into the side. Centers come in letter order: on a full tie the
// first stays.
void join_side(BestSide& side, std::uint32_t size, std::uint64_t time, char market_center) {
    side.total += size;
    if (size > side.largest || (size == side.largest && time < side.earliest)) {
        side.largest = size;
        side.earliest = time;
        side.market_center = market_center;
    }
}

}  // namespace

bool is_eligible_condition(char condition) {
    return eligible_conditions[static_cast<unsigned char>(condition)] != 0;
}

Nbbo compute_nbbo(const Instrument& instrument) {
    // Without a band every price is inside.
    const bool banded = has_active_band(instrument);
    const std::int64_t highest_bid = banded ? instrument.luld_upper : INT64_MAX;
    const std::int64_t lowest_ask = banded ? instrument.luld_lower : 1;
    const auto bid_counts = [highest_bid](const ParticipantQuote& quote) {
        return quote.present && is_eligible_condition(quote.condition) && quote.bid >= 1 &&
               quote.bid_size >= round_lot && quote.bid <= highest_bid;
    };
    const auto ask_counts = [lowest_ask](const ParticipantQuote& quote) {
        return quote.present && is_eligible_condition(quote.condition) && quote.ask >= 1 &&
               quote.ask_size >= round_lot && quote.ask >= lowest_ask;
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
            join_side(bid_side, quote->bid_size, quote->time, quote->market_center);
        }
        if (quote->ask == nbbo.ask && ask_counts(*quote)) {
            join_side(ask_side, quote->ask_size, quote->time, quote->market_center);
        }
    }
    nbbo.bid_size = bid_side.total;
    nbbo.ask_size = ask_side.total;
    nbbo.bid_market_center = bid_side.market_center;
    nbbo.ask_market_center = ask_side.market_center;
    return nbbo;
}

BestOddLot compute_best_odd_lot(const Instrument& instrument, const Nbbo& nbbo) {
    BestOddLot best;
    for (std::size_t slot = 0; slot < instrument.quote_slots; ++slot) {
        const ParticipantQuote& quote = instrument.quotes[slot];
        if (!quote.has_odd_lots) {
            continue;
        }
        const bool bid_inside = nbbo.bid == 0 || quote.odd_bid > nbbo.bid;
        if (bid_inside && (best.bid_size == 0 || quote.odd_bid > best.bid)) {
            best.bid = quote.odd_bid;
            best.bid_size = quote.odd_bid_size;
            best.bid_market_center = quote.market_center;
        }
        const bool ask_inside = nbbo.ask == 0 || quote.odd_ask < nbbo.ask;
        if (ask_inside && (best.ask_size == 0 || quote.odd_ask < best.ask)) {
            best.ask = quote.odd_ask;
            best.ask_size = quote.odd_ask_size;
            best.ask_market_center = quote.market_center;
        }
    }
    return best;
}

}  // namespace tessel
