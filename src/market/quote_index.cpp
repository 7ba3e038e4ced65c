#include "market/quote_index.h"

#include <emmintrin.h>
#include <bit>
#include <cassert>

namespace tessel {

namespace {

constexpr std::uint32_t lot_shares = 100;      // a round lot
constexpr std::size_t indexed_slots_max = 64;  // a bit each

// A byte each of all ones where the prices are these: bids, then asks.
[[gnu::always_inline]] inline __m128i match(const EightPrices& bids, __m128 bid, const EightPrices& asks,
                                            __m128 ask) {
    const __m128i bid_words = _mm_packs_epi32(_mm_castps_si128(_mm_cmpeq_ps(bids.low, bid)),
                                              _mm_castps_si128(_mm_cmpeq_ps(bids.high, bid)));
    const __m128i ask_words = _mm_packs_epi32(_mm_castps_si128(_mm_cmpeq_ps(asks.low, ask)),
                                              _mm_castps_si128(_mm_cmpeq_ps(asks.high, ask)));
    return _mm_packs_epi16(bid_words, ask_words);
}

[[gnu::always_inline]] inline __m128i load_bytes(const std::array<std::uint8_t, 16>& bytes) {
    return _mm_load_si128(reinterpret_cast<const __m128i*>(bytes.data()));
}

// In every byte the highest of its half.
[[gnu::always_inline]] inline __m128i highest_of_halves(__m128i bytes) {
    bytes = _mm_max_epu8(bytes, _mm_shuffle_epi32(bytes, _MM_SHUFFLE(2, 3, 0, 1)));
    bytes = _mm_max_epu8(bytes, _mm_or_si128(_mm_slli_epi32(bytes, 16), _mm_srli_epi32(bytes, 16)));
    return _mm_max_epu8(bytes, _mm_or_si128(_mm_slli_epi16(bytes, 8), _mm_srli_epi16(bytes, 8)));
}

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
    return blocks[slot / QuoteBlock::centers].mc[slot % QuoteBlock::centers];
}

// The same from the quotes themselves.
[[gnu::noinline]] BestQuotes walk_quotes(const Instrument& instrument) {
    BestQuotes best;
    best.nbbo = compute_nbbo(instrument);
    BestOddLot& odd = best.odd_lot;
    for (std::size_t slot = 0; slot < instrument.quote_slots; ++slot) {
        const ParticipantQuote& quote = instrument.quotes[slot];
        if (!quote.has_odd_lots) {
            continue;
        }
        const bool has_bid = (odd.sizes >> 16) != 0;
        const bool has_ask = (odd.sizes & 0xFFFFu) != 0;
        if ((best.nbbo.bid == 0 || quote.odd_bid > best.nbbo.bid) && (!has_bid || quote.odd_bid > odd.bid)) {
            odd.bid = quote.odd_bid;
            odd.bid_mc = quote.mc;
            odd.sizes = (odd.sizes & 0xFFFFu) | static_cast<std::uint32_t>(quote.odd_bid_size) << 16;
        }
        if ((best.nbbo.ask == 0 || quote.odd_ask < best.nbbo.ask) && (!has_ask || quote.odd_ask < odd.ask)) {
            odd.ask = quote.odd_ask;
            odd.ask_mc = quote.mc;
            odd.sizes = (odd.sizes & 0xFFFF0000u) | quote.odd_ask_size;
        }
    }
    return best;
}

// The first center, in letter order, whose odd-lot order has this price.
std::size_t first_slot(const QuoteBlock* blocks, BlockPrices QuoteBlock::*prices, std::int32_t cents) {
    const __m128 wanted = _mm_set1_ps(static_cast<float>(cents));
    for (std::size_t block = 0;; ++block) {
        const EightPrices found = load_prices(blocks[block].*prices);
        const int low = _mm_movemask_ps(_mm_cmpeq_ps(found.low, wanted));
        const int high = _mm_movemask_ps(_mm_cmpeq_ps(found.high, wanted));
        const auto slots = static_cast<unsigned>(low | high << 4);
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
    odd.bid_mc = block.mc[at];
    odd.sizes |= static_cast<std::uint32_t>(block.odd_sizes[at]) << 16;
}

void take_odd_ask(BestOddLot& odd, const QuoteBlock* blocks, std::int32_t negated_cents) {
    const std::size_t slot = first_slot(blocks, &QuoteBlock::odd_ask, negated_cents);
    const QuoteBlock& block = blocks[slot / QuoteBlock::centers];
    const std::size_t at = slot % QuoteBlock::centers;
    odd.ask = -negated_cents * cent;
    odd.ask_mc = block.mc[at];
    odd.sizes |= block.odd_sizes[QuoteBlock::centers + at];
}

bool is_outside_band(const Instrument& instrument, const Nbbo& nbbo) {
    return nbbo.bid > instrument.luld_upper || (nbbo.ask != 0 && nbbo.ask < instrument.luld_lower);
}

// Total size and center at the best prices of both sides, which the NBBO has already.
[[gnu::always_inline]] inline void gather_sizes(Nbbo& nbbo, const QuoteBlock* blocks, std::size_t count,
                                                __m128 bid, __m128 ask) {
    __m128i totals = _mm_setzero_si128();
    __m128i largest = _mm_setzero_si128();
    for (std::size_t at = 0; at < count; ++at) {
        const __m128i at_best =
            _mm_and_si128(match(load_prices(blocks[at].bid), bid, load_prices(blocks[at].ask), ask),
                          load_bytes(blocks[at].lots));
        totals = _mm_add_epi64(totals, _mm_sad_epu8(at_best, _mm_setzero_si128()));
        largest = _mm_max_epu8(largest, at_best);
    }
    largest = highest_of_halves(largest);
    std::uint64_t bid_slots = 0;
    std::uint64_t ask_slots = 0;
    for (std::size_t at = 0; at < count; ++at) {
        const __m128i at_best =
            _mm_and_si128(match(load_prices(blocks[at].bid), bid, load_prices(blocks[at].ask), ask),
                          load_bytes(blocks[at].lots));
        const auto slots = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(at_best, largest)));
        bid_slots |= static_cast<std::uint64_t>(slots & 0xFFu) << (at * QuoteBlock::centers);
        ask_slots |= static_cast<std::uint64_t>(slots >> 8) << (at * QuoteBlock::centers);
    }
    if (nbbo.bid != 0) [[likely]] {
        nbbo.bid_size = static_cast<std::uint32_t>(_mm_cvtsi128_si32(totals)) * lot_shares;
        nbbo.bid_mc = name_center(blocks, bid_slots);
    }
    if (nbbo.ask != 0) [[likely]] {
        nbbo.ask_size = static_cast<std::uint32_t>(_mm_extract_epi16(totals, 4)) * lot_shares;
        nbbo.ask_mc = name_center(blocks, ask_slots);
    }
}

// The search over count blocks; always inline, so that a constant count leaves no loops.
[[gnu::always_inline]] inline BestQuotes search_blocks(const Instrument& instrument, const QuoteBlock* blocks,
                                                       std::size_t count) {
    __m128 bids = _mm_set1_ps(never_cents);
    __m128 asks = bids;
    __m128 odd_bids = bids;
    __m128 odd_asks = bids;
    unsigned inexact = 0;
    for (std::size_t at = 0; at < count; ++at) {
        bids = _mm_max_ps(bids, higher_of_pairs(load_prices(blocks[at].bid)));
        asks = _mm_max_ps(asks, higher_of_pairs(load_prices(blocks[at].ask)));
        odd_bids = _mm_max_ps(odd_bids, higher_of_pairs(load_prices(blocks[at].odd_bid)));
        odd_asks = _mm_max_ps(odd_asks, higher_of_pairs(load_prices(blocks[at].odd_ask)));
        inexact |= blocks[at].inexact;
    }
    // Four lanes: best bid and ask, best odd-lot bid and ask.
    const __m128 full = pair_up(bids, asks);
    const __m128 odd = pair_up(odd_bids, odd_asks);
    const __m128 best = _mm_max_ps(_mm_movelh_ps(full, odd), _mm_movehl_ps(odd, full));
    alignas(16) std::array<std::int32_t, 4> cents;
    _mm_store_si128(reinterpret_cast<__m128i*>(cents.data()), _mm_cvttps_epi32(best));

    BestQuotes found;
    Nbbo& nbbo = found.nbbo;
    nbbo.bid = cents[0] == no_cents ? 0 : cents[0] * cent;
    nbbo.ask = cents[1] == no_cents ? 0 : -cents[1] * cent;
    if (inexact != 0 || (has_active_band(instrument) && is_outside_band(instrument, nbbo))) [[unlikely]] {
        // Quotes outside the band must be left out one by one.
        return walk_quotes(instrument);
    }
    gather_sizes(nbbo, blocks, count, splat<0>(best), splat<1>(best));
    // If any order is inside the NBBO, the best of all is; a side without an NBBO has every order inside.
    const int inside = _mm_movemask_ps(_mm_cmpgt_ps(_mm_movehl_ps(best, best), best));
    if ((inside & 1) != 0) {
        take_odd_bid(found.odd_lot, blocks, cents[2]);
    }
    if ((inside & 2) != 0) {
        take_odd_ask(found.odd_lot, blocks, cents[3]);
    }
    return found;
}

// What one side of a quote puts into the index.
struct SideEntry {
    float cents = never_cents;  // not negated
    std::uint32_t lots = 0;
    bool inexact = false;
    bool unlisted = false;
};

[[gnu::always_inline]] inline SideEntry enter_side(bool present, bool eligible, std::int64_t price,
                                                   std::uint32_t size) {
    SideEntry entry;
    if (!present || price < 1 || size == 0) {
        return entry;
    }
    const std::int64_t cents = price / cent;
    const std::uint32_t lots = size / lot_shares;
    if (!eligible || lots == 0) {
        entry.unlisted = true;
    } else if (cents > quote_cents_indexed || lots > quote_lots_indexed || lots * lot_shares != size)
        [[unlikely]] {
        entry.inexact = true;
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
    block.mc.fill(' ');
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
    block.mc[at] = quote.mc;
    block.time[at] = quote.time;
    block.odd_bid[at] = never_cents;
    block.odd_ask[at] = never_cents;
    bool inexact = bid.inexact || ask.inexact;
    if (quote.has_odd_lots) {
        inexact = inexact || !is_exact(quote.odd_bid) || !is_exact(quote.odd_ask);
        const std::int64_t odd_bid_cents = quote.odd_bid / cent;
        const std::int64_t odd_ask_cents = quote.odd_ask / cent;
        block.odd_bid[at] = static_cast<float>(odd_bid_cents);
        block.odd_ask[at] = static_cast<float>(-odd_ask_cents);
        block.odd_sizes[at] = quote.odd_bid_size;
        block.odd_sizes[QuoteBlock::centers + at] = quote.odd_ask_size;
    }
    const bool unlisted = bid.unlisted || ask.unlisted;
    if (inexact || unlisted || (block.inexact | block.unlisted) != 0) [[unlikely]] {
        set_bit(block.inexact, at, inexact);
        set_bit(block.unlisted, at, unlisted);
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

}  // namespace tessel
