#include "market/nbbo.h"

#include <emmintrin.h>
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

// The total size and the center of one side's best price.
struct BestSide {
    std::uint32_t total = 0;
    std::uint32_t largest = 0;
    std::uint64_t earliest = 0;
    char mc = ' ';
};

// Takes a center that quotes at the best price into the side. Centers come in letter order: on a full tie the
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

}  // namespace

void build_levels(const Instrument& instrument, char side, std::size_t most, PriceLevels& levels) {
    levels.count = 0;
    if (side == 'B') {
        insert_levels<'B'>(instrument, most, levels);
    } else {
        insert_levels<'A'>(instrument, most, levels);
    }
}

namespace {

// Distances of eight prices from the best one, in 16 bits each; those that never win are far below 0.
[[gnu::always_inline]] inline __m128i distances(const EightPrices& prices, __m128 best) {
    return _mm_packs_epi32(_mm_cvttps_epi32(_mm_sub_ps(best, prices.low)),
                           _mm_cvttps_epi32(_mm_sub_ps(best, prices.high)));
}

[[gnu::always_inline]] inline void clear_lots(LevelBuckets& side) {
#pragma GCC unroll 4
    for (std::size_t at = 0; at < side.lots.size(); at += 16) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(side.lots.data() + at), _mm_setzero_si128());
    }
}

// One center's lots into the bucket of its distance. A center without a quote adds none to the first.
template <int center>
[[gnu::always_inline]] inline void add_lots(LevelBuckets& side, __m128i distance, const std::uint8_t* lots) {
    const auto bucket = static_cast<std::size_t>(_mm_extract_epi16(distance, center));
    // Not lots[bucket]: fill_level_buckets has looked at all distances together, and the library's check of
    // each index made the message 5 % more expensive.
    std::uint8_t& sum = side.lots.data()[bucket];
    sum = static_cast<std::uint8_t>(sum + lots[center]);
    side.used |= std::uint64_t{1} << bucket;
}

[[gnu::always_inline]] inline void add_eight(LevelBuckets& side, __m128i distance, const std::uint8_t* lots) {
    distance = _mm_max_epi16(distance, _mm_setzero_si128());
    add_lots<0>(side, distance, lots);
    add_lots<1>(side, distance, lots);
    add_lots<2>(side, distance, lots);
    add_lots<3>(side, distance, lots);
    add_lots<4>(side, distance, lots);
    add_lots<5>(side, distance, lots);
    add_lots<6>(side, distance, lots);
    add_lots<7>(side, distance, lots);
}

}  // namespace

bool fill_level_buckets(const Instrument& instrument, LevelBuckets& bids, LevelBuckets& asks) {
    if (instrument.blocks == nullptr || instrument.quote_slots > QuoteBlock::centers) [[unlikely]] {
        return false;
    }
    const QuoteBlock& block = *instrument.blocks;
    const EightPrices bid = load_prices(block.bid);
    const EightPrices ask = load_prices(block.ask);
    const __m128 halves = pair_up(higher_of_pairs(bid), higher_of_pairs(ask));
    const __m128 best = _mm_max_ps(halves, _mm_movehl_ps(halves, halves));
    const __m128i bid_distances = distances(bid, splat<0>(best));
    const __m128i ask_distances = distances(ask, splat<1>(best));
    const __m128i last_bucket = _mm_set1_epi16(static_cast<short>(bids.lots.size() - 1));
    const __m128i too_far = _mm_or_si128(_mm_cmpgt_epi16(bid_distances, last_bucket),
                                         _mm_cmpgt_epi16(ask_distances, last_bucket));
    if ((block.inexact | block.unlisted) != 0 || _mm_movemask_epi8(too_far) != 0) [[unlikely]] {
        return false;
    }
    const __m128i cents = _mm_cvttps_epi32(best);
    const std::int32_t best_bid = _mm_cvtsi128_si32(cents);
    const std::int32_t best_ask = _mm_cvtsi128_si32(_mm_shuffle_epi32(cents, 1));
    bids.best = best_bid;
    asks.best = -static_cast<std::int64_t>(best_ask);
    bids.used = 0;
    asks.used = 0;
    clear_lots(bids);
    clear_lots(asks);
    add_eight(bids, bid_distances, block.lots.data());
    add_eight(asks, ask_distances, block.lots.data() + QuoteBlock::centers);
    bids.used = best_bid == no_cents ? 0 : bids.used;
    asks.used = best_ask == no_cents ? 0 : asks.used;
    return true;
}

namespace {

void list_side(const LevelBuckets& side, std::int64_t step, std::size_t most, PriceLevels& levels) {
    levels.count = 0;
    for (std::uint64_t used = side.used; used != 0 && levels.count < most; used &= used - 1) {
        const int bucket = std::countr_zero(used);
        const std::uint32_t lots = side.lots.data()[bucket];
        levels.level[levels.count++] = {(side.best + step * bucket) * cent, lots * round_lot};
    }
}

}  // namespace

void list_levels(const Instrument& instrument, std::size_t most, PriceLevels& bids, PriceLevels& asks) {
    LevelBuckets bid_buckets;
    LevelBuckets ask_buckets;
    if (fill_level_buckets(instrument, bid_buckets, ask_buckets)) {
        list_side(bid_buckets, -1, most, bids);
        list_side(ask_buckets, 1, most, asks);
    } else {
        build_levels(instrument, 'B', most, bids);
        build_levels(instrument, 'A', most, asks);
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
