#include "market/quote_index.h"

#include "base/lanes.h"
#include "market/nbbo.h"

#include <bit>
#include <cassert>

namespace tessel {

namespace {

constexpr std::size_t indexed_slots_max = 64;  // a bit each

using BlockPrices = std::array<float, QuoteBlock::centers>;

// The prices of eight centers.
struct EightPrices {
    Floats4 low;
    Floats4 high;
};

[[gnu::always_inline]] inline EightPrices load_prices(const BlockPrices& prices) {
    return {load_floats(prices.data()), load_floats(prices.data() + 4)};
}

[[gnu::always_inline]] inline Floats4 higher_half(const EightPrices& prices) {
    return higher(prices.low, prices.high);
}

// The highest of the bids in the lanes 0 and 2, of the asks in 1 and 3, each of one half.
[[gnu::always_inline]] inline Floats4 pair_up(Floats4 bids, Floats4 asks) {
    return higher(__builtin_shufflevector(bids, asks, 0, 4, 1, 5),
                  __builtin_shufflevector(bids, asks, 2, 6, 3, 7));
}

// A byte each of all ones where the prices are these: bids, then asks.
[[gnu::always_inline]] inline Bytes16 match(const EightPrices& bids, Floats4 bid, const EightPrices& asks,
                                            Floats4 ask) {
    return narrow_masks(bids.low == bid, bids.high == bid, asks.low == ask, asks.high == ask);
}

// In every byte the highest of its half: exchanged by words, then by pairs, then by bytes.
[[gnu::always_inline]] inline Bytes16 highest_of_halves(Bytes16 bytes) {
    const auto words = (UnsignedWords4)bytes;
    bytes = higher(bytes, (Bytes16)__builtin_shufflevector(words, words, 1, 0, 3, 2));
    const auto pairs = (UnsignedWords4)bytes;
    bytes = higher(bytes, (Bytes16)(pairs << 16 | pairs >> 16));
    const auto each = (Pairs8)bytes;
    return higher(bytes, (Bytes16)(each << 8 | each >> 8));
}

// The sum of the eight bytes, which is below 256.
[[gnu::always_inline]] inline std::uint32_t sum_of_bytes(std::uint64_t bytes) {
    return static_cast<std::uint32_t>(bytes * 0x0101010101010101u >> 56);
}
static_assert(QuoteBlock::centers * quote_lots_indexed < 256);

// Of several centers (a bit for each slot) the one with the earliest quote, and of those the first.
[[gnu::noinline]] std::size_t earliest_slot(const QuoteBlock* blocks, std::uint64_t slots) {
    assert(slots != 0);
    const auto time_of = [blocks](std::size_t slot) {
        return blocks[slot / QuoteBlock::centers].time[slot % QuoteBlock::centers];
    };
    auto earliest = static_cast<std::size_t>(std::countr_zero(slots));
    for (slots &= slots - 1; slots != 0; slots &= slots - 1) {
        const auto slot = static_cast<std::size_t>(std::countr_zero(slots));
        if (time_of(slot) < time_of(earliest)) {
            earliest = slot;
        }
    }
    return earliest;
}

// The center to name of those with the largest quote at the best price. Mostly there is one.
[[gnu::always_inline]] inline char name_center(const QuoteBlock* blocks, std::uint64_t slots) {
    const std::size_t slot = (slots & (slots - 1)) == 0 ? static_cast<std::size_t>(std::countr_zero(slots))
                                                        : earliest_slot(blocks, slots);
    return blocks[slot / QuoteBlock::centers].market_center[slot % QuoteBlock::centers];
}

// The same from the quotes themselves.
[[gnu::noinline]] BestQuotes walk_quotes(const Instrument& instrument) {
    const Nbbo nbbo = compute_nbbo(instrument);
    return {nbbo, compute_best_odd_lot(instrument, nbbo)};
}

// The first center, in letter order, whose odd-lot order has this price.
std::size_t first_slot(const QuoteBlock* blocks, BlockPrices QuoteBlock::*prices, std::int32_t cents) {
    const Floats4 wanted = four_of(static_cast<float>(cents));
    for (std::size_t block = 0;; ++block) {
        const EightPrices found = load_prices(blocks[block].*prices);
        const unsigned slots = byte_bits(match(found, wanted, found, wanted)) & 0xFFu;
        if (slots != 0) {
            return block * QuoteBlock::centers + static_cast<std::size_t>(std::countr_zero(slots));
        }
    }
}

void take_odd_bid(BestOddLot& odd, const QuoteBlock* blocks, std::int32_t cents) {
    const std::size_t slot = first_slot(blocks, &QuoteBlock::odd_bid, cents);
    const QuoteBlock& block = blocks[slot / QuoteBlock::centers];
    const std::size_t at = slot % QuoteBlock::centers;
    odd.bid = cents * cent;
    odd.bid_market_center = block.market_center[at];
    odd.bid_size = block.odd_sizes[at];
}

void take_odd_ask(BestOddLot& odd, const QuoteBlock* blocks, std::int32_t negated_cents) {
    const std::size_t slot = first_slot(blocks, &QuoteBlock::odd_ask, negated_cents);
    const QuoteBlock& block = blocks[slot / QuoteBlock::centers];
    const std::size_t at = slot % QuoteBlock::centers;
    odd.ask = -negated_cents * cent;
    odd.ask_market_center = block.market_center[at];
    odd.ask_size = block.odd_sizes[QuoteBlock::centers + at];
}

bool is_outside_band(const Instrument& instrument, const Nbbo& nbbo) {
    return nbbo.bid > instrument.luld_upper || (nbbo.ask != 0 && nbbo.ask < instrument.luld_lower);
}

// Total size and center at the best prices of both sides, which the NBBO has already.
[[gnu::always_inline]] inline void gather_sizes(Nbbo& nbbo, const QuoteBlock* blocks, std::size_t count,
                                                Floats4 bid, Floats4 ask) {
    std::uint32_t bid_lots = 0;
    std::uint32_t ask_lots = 0;
    Bytes16 largest{};
    for (std::size_t at = 0; at < count; ++at) {
        const Bytes16 at_best = match(load_prices(blocks[at].bid), bid, load_prices(blocks[at].ask), ask) &
                                load_bytes(blocks[at].lots.data());
        std::array<std::uint64_t, 2> halves;
        __builtin_memcpy(halves.data(), &at_best, sizeof halves);
        bid_lots += sum_of_bytes(halves[0]);
        ask_lots += sum_of_bytes(halves[1]);
        largest = higher(largest, at_best);
    }
    largest = highest_of_halves(largest);
    std::uint64_t bid_slots = 0;
    std::uint64_t ask_slots = 0;
    for (std::size_t at = 0; at < count; ++at) {
        const Bytes16 at_best = match(load_prices(blocks[at].bid), bid, load_prices(blocks[at].ask), ask) &
                                load_bytes(blocks[at].lots.data());
        const unsigned slots = byte_bits((Bytes16)(at_best == largest));
        bid_slots |= static_cast<std::uint64_t>(slots & 0xFFu) << (at * QuoteBlock::centers);
        ask_slots |= static_cast<std::uint64_t>(slots >> 8) << (at * QuoteBlock::centers);
    }
    if (nbbo.bid != 0) [[likely]] {
        nbbo.bid_size = bid_lots * round_lot;
        nbbo.bid_market_center = name_center(blocks, bid_slots);
    }
    if (nbbo.ask != 0) [[likely]] {
        nbbo.ask_size = ask_lots * round_lot;
        nbbo.ask_market_center = name_center(blocks, ask_slots);
    }
}

// The search over count blocks; always inline, so that a constant count leaves no loops.
[[gnu::always_inline]] inline BestQuotes search_blocks(const Instrument& instrument, const QuoteBlock* blocks,
                                                       std::size_t count) {
    Floats4 bids = four_of(never_cents);
    Floats4 asks = bids;
    Floats4 odd_bids = bids;
    Floats4 odd_asks = bids;
    unsigned fallback = 0;
    for (std::size_t at = 0; at < count; ++at) {
        bids = higher(bids, higher_half(load_prices(blocks[at].bid)));
        asks = higher(asks, higher_half(load_prices(blocks[at].ask)));
        odd_bids = higher(odd_bids, higher_half(load_prices(blocks[at].odd_bid)));
        odd_asks = higher(odd_asks, higher_half(load_prices(blocks[at].odd_ask)));
        fallback |= blocks[at].fallback_bits;
    }
    // Four lanes: best bid and ask, best odd-lot bid and ask.
    const Floats4 full = pair_up(bids, asks);
    const Floats4 odd = pair_up(odd_bids, odd_asks);
    const Floats4 best = higher(__builtin_shufflevector(full, odd, 0, 1, 4, 5),
                                __builtin_shufflevector(full, odd, 2, 3, 6, 7));
    alignas(16) std::array<std::int32_t, 4> cents;
    const Words4 whole = __builtin_convertvector(best, Words4);
    __builtin_memcpy(cents.data(), &whole, sizeof cents);

    BestQuotes found;
    Nbbo& nbbo = found.nbbo;
    nbbo.bid = cents[0] == no_cents ? 0 : cents[0] * cent;
    nbbo.ask = cents[1] == no_cents ? 0 : -cents[1] * cent;
    if (fallback != 0 || (has_active_band(instrument) && is_outside_band(instrument, nbbo))) [[unlikely]] {
        // Quotes outside the band must be left out one by one.
        return walk_quotes(instrument);
    }
    gather_sizes(nbbo, blocks, count, four_of(best[0]), four_of(best[1]));
    // If any order is inside the NBBO, the best of all is; a side without an NBBO has every order inside.
    if (cents[2] > cents[0]) {
        take_odd_bid(found.odd_lot, blocks, cents[2]);
    }
    if (cents[3] > cents[1]) {
        take_odd_ask(found.odd_lot, blocks, cents[3]);
    }
    return found;
}

// What one side of a quote puts into the index.
struct SideEntry {
    float cents = never_cents;  // not negated
    std::uint32_t lots = 0;
    bool fallback = false;
    bool levels_only = false;
};

[[gnu::always_inline]] inline SideEntry enter_side(bool present, bool eligible, std::int64_t price,
                                                   std::uint32_t size) {
    SideEntry entry;
    if (!present || price < 1 || size == 0) {
        return entry;
    }
    const std::int64_t cents = price / cent;
    const std::uint32_t lots = size / round_lot;
    if (!eligible || lots == 0) {
        entry.levels_only = true;
    } else if (cents > quote_cents_indexed || lots > quote_lots_indexed || lots * round_lot != size)
        [[unlikely]] {
        entry.fallback = true;
    } else {
        entry.cents = static_cast<float>(cents);
        entry.lots = lots;
    }
    return entry;
}

bool is_exact(std::int64_t price) {
    return price >= -quote_cents_indexed * cent && price <= quote_cents_indexed * cent;
}

void set_bit(std::uint8_t& bits, std::size_t at, bool value) {
    bits = static_cast<std::uint8_t>((bits & ~(1u << at)) | (value ? 1u : 0u) << at);
}

}  // namespace

QuoteBlock empty_quote_block() {
    QuoteBlock block{};
    block.bid.fill(never_cents);
    block.ask.fill(never_cents);
    block.odd_bid.fill(never_cents);
    block.odd_ask.fill(never_cents);
    block.market_center.fill(' ');
    return block;
}

void index_quote(const ParticipantQuote& quote, QuoteBlock* blocks, std::size_t slot) {
    QuoteBlock& block = blocks[slot / QuoteBlock::centers];
    const std::size_t at = slot % QuoteBlock::centers;
    const bool eligible = is_eligible_condition(quote.condition);
    const SideEntry bid = enter_side(quote.present, eligible, quote.bid, quote.bid_size);
    const SideEntry ask = enter_side(quote.present, eligible, quote.ask, quote.ask_size);
    block.bid[at] = bid.cents;
    block.ask[at] = ask.lots != 0 ? -ask.cents : never_cents;
    block.lots[at] = static_cast<std::uint8_t>(bid.lots);
    block.lots[QuoteBlock::centers + at] = static_cast<std::uint8_t>(ask.lots);
    block.market_center[at] = quote.market_center;
    block.time[at] = quote.time;
    block.odd_bid[at] = never_cents;
    block.odd_ask[at] = never_cents;
    bool fallback = bid.fallback || ask.fallback;
    if (quote.has_odd_lots) {
        fallback = fallback || !is_exact(quote.odd_bid) || !is_exact(quote.odd_ask);
        const std::int64_t odd_bid_cents = quote.odd_bid / cent;
        const std::int64_t odd_ask_cents = quote.odd_ask / cent;
        block.odd_bid[at] = static_cast<float>(odd_bid_cents);
        block.odd_ask[at] = static_cast<float>(-odd_ask_cents);
        block.odd_sizes[at] = quote.odd_bid_size;
        block.odd_sizes[QuoteBlock::centers + at] = quote.odd_ask_size;
    }
    const bool levels_only = bid.levels_only || ask.levels_only;
    if (fallback || levels_only || (block.fallback_bits | block.levels_only_bits) != 0) [[unlikely]] {
        set_bit(block.fallback_bits, at, fallback);
        set_bit(block.levels_only_bits, at, levels_only);
    }
}

BestQuotes find_best_quotes(const Instrument& instrument) {
    if (instrument.quote_slots <= QuoteBlock::centers && instrument.quote_slots != 0) [[likely]] {
        return search_blocks(instrument, instrument.blocks, 1);
    }
    if (instrument.quote_slots > indexed_slots_max) {
        return walk_quotes(instrument);
    }
    return search_blocks(instrument, instrument.blocks, quote_blocks(instrument.quote_slots));
}

namespace {

using Distances = std::array<std::uint32_t, QuoteBlock::centers>;

// Distances of four prices from the best one, in cents. Centers that don't count are far below the best: they
// go into the first bucket, to which they add no lots.
[[gnu::always_inline]] inline Words4 distances_of(Floats4 prices, Floats4 best) {
    constexpr std::int32_t farthest = -no_cents / 2;
    const Words4 distance = __builtin_convertvector(best - prices, Words4);
    return distance & (distance < farthest);
}

// The lots of each center into the bucket of its distance.
[[gnu::always_inline]] inline void add_lots(LevelBuckets& side, Words4 low, Words4 high,
                                            const std::uint8_t* lots) {
    Distances distances;
    __builtin_memcpy(distances.data(), &low, sizeof low);
    __builtin_memcpy(distances.data() + 4, &high, sizeof high);
    std::uint64_t used = 0;  // not side.used, which each store of lots could change
#pragma GCC unroll 8
    for (std::size_t at = 0; at < distances.size(); ++at) {
        const std::uint32_t bucket = distances[at];
        // Not lots[bucket]: fill_level_buckets has looked at all distances together, and the library's check
        // of each index made the message 5 % more expensive.
        std::uint8_t& sum = side.lots.data()[bucket];
        sum = static_cast<std::uint8_t>(sum + lots[at]);
        used |= std::uint64_t{1} << bucket;
    }
    side.used = used;
}

void list_side(const LevelBuckets& side, std::int64_t step, std::size_t most, PriceLevels& levels) {
    levels.count = 0;
    for (std::uint64_t used = side.used; used != 0 && levels.count < most; used &= used - 1) {
        const int bucket = std::countr_zero(used);
        const std::uint32_t lots = side.lots.data()[bucket];
        levels.level[levels.count++] = {(side.best + step * bucket) * cent, lots * round_lot};
    }
}

}  // namespace

bool fill_level_buckets(const Instrument& instrument, LevelBuckets& bids, LevelBuckets& asks) {
    if (instrument.blocks == nullptr || instrument.quote_slots > QuoteBlock::centers) [[unlikely]] {
        return false;
    }
    const QuoteBlock& block = *instrument.blocks;
    const EightPrices bid = load_prices(block.bid);
    const EightPrices ask = load_prices(block.ask);
    const Floats4 halves = pair_up(higher_half(bid), higher_half(ask));
    const Floats4 best = higher(halves, __builtin_shufflevector(halves, halves, 2, 3, 2, 3));
    const Floats4 best_bid = four_of(best[0]);
    const Floats4 best_ask = four_of(best[1]);
    const Words4 bid_low = distances_of(bid.low, best_bid);
    const Words4 bid_high = distances_of(bid.high, best_bid);
    const Words4 ask_low = distances_of(ask.low, best_ask);
    const Words4 ask_high = distances_of(ask.high, best_ask);
    constexpr auto last_bucket = static_cast<std::int32_t>(sizeof bids.lots - 1);
    const Words4 too_far = (bid_low > last_bucket) | (bid_high > last_bucket) | (ask_low > last_bucket) |
                           (ask_high > last_bucket);
    if ((block.fallback_bits | block.levels_only_bits) != 0 || byte_bits((Bytes16)too_far) != 0)
        [[unlikely]] {
        return false;
    }
    const auto bid_cents = static_cast<std::int32_t>(best[0]);
    const auto ask_cents = static_cast<std::int32_t>(best[1]);
    bids.best = bid_cents;
    asks.best = -static_cast<std::int64_t>(ask_cents);
    bids.lots.fill(0);
    asks.lots.fill(0);
    add_lots(bids, bid_low, bid_high, block.lots.data());
    add_lots(asks, ask_low, ask_high, block.lots.data() + QuoteBlock::centers);
    bids.used = bid_cents == no_cents ? 0 : bids.used;
    asks.used = ask_cents == no_cents ? 0 : asks.used;
    return true;
}

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

}  // namespace tessel
