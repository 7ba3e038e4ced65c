#include "market/nbbo.h"

#include <algorithm>
#include <array>
#include <bit>

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

// Takes a centre that quotes at the best price into the side. Centres come in letter order: on a full tie the
// first stays.
void join_side(BestSide& side, std::uint32_t size, std::uint64_t time, char mc) {
    side.total += size;
    if (size > side.largest || (size == side.largest && time < side.earliest)) {
        side.largest = size;
        side.earliest = time;
        side.mc = mc;
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

namespace {

// A quote's price and size on one side, 0 when it makes no level.
struct SideQuote {
    std::int64_t price;
    std::uint32_t size;
};

template <char side>
SideQuote side_of(const ParticipantQuote& quote) {
    const std::int64_t price = side == 'B' ? quote.bid : quote.ask;
    const std::uint32_t size = side == 'B' ? quote.bid_size : quote.ask_size;
    return {quote.present && size != 0 && price > 0 ? price : 0, size};
}

template <char side>
bool is_better(std::int64_t left, std::int64_t right) {
    return side == 'B' ? left > right : left < right;
}

// Any prices, by insertion.
template <char side>
void insert_levels(const Instrument& instrument, std::size_t most, PriceLevels& levels) {
    const ParticipantQuote* const end = instrument.quotes + instrument.quote_slots;
    for (const ParticipantQuote* quote = instrument.quotes; quote != end; ++quote) {
        const auto [price, size] = side_of<side>(*quote);
        if (price == 0) {
            continue;
        }
        std::size_t at = 0;
        while (at < levels.count && is_better<side>(levels.level[at].price, price)) {
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

// Some quotes, of conditions that cannot set the NBBO, are better than it.
constexpr std::int64_t better_buckets = 16;

template <char side>
bool fill_side(const Instrument& instrument, LevelBuckets& buckets) {
    const std::int64_t nbbo = side == 'B' ? instrument.nbbo_bid : instrument.nbbo_ask;
    const std::int64_t first = side == 'B' ? nbbo + better_buckets * cent : nbbo - better_buckets * cent;
    buckets.first = first;
    buckets.step = side == 'B' ? -cent : cent;
    buckets.sizes.fill(0);
    std::uint64_t used = 0;
    const ParticipantQuote* const end = instrument.quotes + instrument.quote_slots;
    for (const ParticipantQuote* quote = instrument.quotes; quote != end; ++quote) {
        const auto [price, size] = side_of<side>(*quote);
        if (price == 0) {
            continue;
        }
        const auto distance = static_cast<std::uint64_t>(side == 'B' ? first - price : price - first);
        if (distance >= buckets.sizes.size() * static_cast<std::uint64_t>(cent)) {
            return false;
        }
        const std::uint64_t bucket = distance / static_cast<std::uint64_t>(cent);
        buckets.sizes[bucket] += size;
        used |= std::uint64_t{1} << bucket;
    }
    buckets.used = used;
    return true;
}

}  // namespace

bool fill_buckets(const Instrument& instrument, char side, LevelBuckets& buckets) {
    return side == 'B' ? fill_side<'B'>(instrument, buckets) : fill_side<'A'>(instrument, buckets);
}

void build_levels(const Instrument& instrument, char side, std::size_t most, PriceLevels& levels) {
    levels.count = 0;
    LevelBuckets buckets;
    if (fill_buckets(instrument, side, buckets)) {
        while (buckets.used != 0 && levels.count < most) {
            levels.level[levels.count++] = take_level(buckets);
        }
    } else if (side == 'B') {
        insert_levels<'B'>(instrument, most, levels);
    } else {
        insert_levels<'A'>(instrument, most, levels);
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

}  // namespace tessel
