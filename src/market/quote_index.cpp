#include "market/quote_index.h"

#include <emmintrin.h>
#include <bit>
#include <cassert>
#include <limits>

namespace tessel {

namespace {

constexpr std::uint32_t round_lot = 100;
constexpr std::size_t indexed_slots_max = 64;  // a bit each
constexpr double never_bid = -std::numeric_limits<double>::infinity();
constexpr double never_ask = std::numeric_limits<double>::infinity();

constexpr std::size_t pairs_per_block = QuoteBlock::centres / 2;

using Values = std::array<double, QuoteBlock::centres>;

__m128d load(const Values& values, std::size_t pair) {
    return _mm_load_pd(values.data() + 2 * pair);
}

double highest_of(__m128d pair) {
    return _mm_cvtsd_f64(_mm_max_sd(pair, _mm_unpackhi_pd(pair, pair)));
}

double lowest_of(__m128d pair) {
    return _mm_cvtsd_f64(_mm_min_sd(pair, _mm_unpackhi_pd(pair, pair)));
}

double sum_of(__m128d pair) {
    return _mm_cvtsd_f64(_mm_add_sd(pair, _mm_unpackhi_pd(pair, pair)));
}

// One side's best price with the total of the sizes there and the centre to name.
struct BestSide {
    std::int64_t price = 0;
    std::uint32_t total = 0;
    char mc = ' ';
};

// Of several centres (a bit for each slot) the one with the earliest quote, and of those the first.
[[gnu::noinline]] char earliest_centre(const Instrument& instrument, std::uint64_t slots) {
    assert(slots != 0);
    const ParticipantQuote* earliest = &instrument.quotes[std::countr_zero(slots)];
    for (slots &= slots - 1; slots != 0; slots &= slots - 1) {
        const ParticipantQuote& quote = instrument.quotes[std::countr_zero(slots)];
        if (quote.time < earliest->time) {
            earliest = &quote;
        }
    }
    return earliest->mc;
}

// Total and centre at the best price. A price that doesn't match leaves a size of 0.
[[gnu::always_inline]] inline BestSide gather_side(const Instrument& instrument, const QuoteBlock* blocks,
                                                   std::size_t count, const Values QuoteBlock::*prices,
                                                   const Values QuoteBlock::*sizes, double best) {
    const __m128d wanted = _mm_set1_pd(best);
    __m128d totals = _mm_setzero_pd();
    __m128d largests = _mm_setzero_pd();
    for (std::size_t block = 0; block < count; ++block) {
#pragma GCC unroll 4
        for (std::size_t pair = 0; pair < pairs_per_block; ++pair) {
            const __m128d at_best = _mm_cmpeq_pd(load(blocks[block].*prices, pair), wanted);
            const __m128d size = _mm_and_pd(at_best, load(blocks[block].*sizes, pair));
            totals = _mm_add_pd(totals, size);
            largests = _mm_max_pd(largests, size);
        }
    }
    const __m128d largest = _mm_set1_pd(highest_of(largests));
    std::uint64_t slots = 0;
    for (std::size_t block = 0; block < count; ++block) {
#pragma GCC unroll 4
        for (std::size_t pair = 0; pair < pairs_per_block; ++pair) {
            const __m128d chosen = _mm_and_pd(_mm_cmpeq_pd(load(blocks[block].*prices, pair), wanted),
                                              _mm_cmpeq_pd(load(blocks[block].*sizes, pair), largest));
            const auto bits = static_cast<std::uint64_t>(_mm_movemask_pd(chosen));
            slots |= bits << (block * QuoteBlock::centres + 2 * pair);
        }
    }
    BestSide side;
    side.price = static_cast<std::int64_t>(best);
    side.total = static_cast<std::uint32_t>(static_cast<std::int64_t>(sum_of(totals)));
    // Mostly there is one.
    side.mc = (slots & (slots - 1)) == 0 ? instrument.quotes[std::countr_zero(slots)].mc
                                         : earliest_centre(instrument, slots);
    return side;
}

}  // namespace

QuoteBlock empty_quote_block() {
    QuoteBlock block;
    block.bid.fill(never_bid);
    block.ask.fill(never_ask);
    block.bid_size.fill(0);
    block.ask_size.fill(0);
    block.odd_bid.fill(never_bid);
    block.odd_ask.fill(never_ask);
    return block;
}

void index_quote(const ParticipantQuote& quote, QuoteBlock* blocks, std::size_t slot) {
    QuoteBlock& block = blocks[slot / QuoteBlock::centres];
    const std::size_t at = slot % QuoteBlock::centres;
    const bool eligible = quote.present && is_eligible_condition(quote.condition);
    const bool bid_counts = eligible && quote.bid >= 1 && quote.bid_size >= round_lot;
    const bool ask_counts = eligible && quote.ask >= 1 && quote.ask_size >= round_lot;
    block.bid[at] = bid_counts ? static_cast<double>(quote.bid) : never_bid;
    block.ask[at] = ask_counts ? static_cast<double>(quote.ask) : never_ask;
    block.bid_size[at] = bid_counts ? static_cast<double>(quote.bid_size) : 0;
    block.ask_size[at] = ask_counts ? static_cast<double>(quote.ask_size) : 0;
    block.odd_bid[at] = quote.has_odd_lots ? static_cast<double>(quote.odd_bid) : never_bid;
    block.odd_ask[at] = quote.has_odd_lots ? static_cast<double>(quote.odd_ask) : never_ask;
}

namespace {

// The search over count blocks; always inline, so that a constant count leaves no loops.
[[gnu::always_inline]] inline Nbbo search_blocks(const Instrument& instrument, const QuoteBlock* blocks,
                                                 std::size_t count) {
    __m128d bids = _mm_set1_pd(never_bid);
    __m128d asks = _mm_set1_pd(never_ask);
    for (std::size_t block = 0; block < count; ++block) {
#pragma GCC unroll 4
        for (std::size_t pair = 0; pair < pairs_per_block; ++pair) {
            bids = _mm_max_pd(bids, load(blocks[block].bid, pair));
            asks = _mm_min_pd(asks, load(blocks[block].ask, pair));
        }
    }
    const double best_bid = highest_of(bids);
    const double best_ask = lowest_of(asks);
    if (has_active_band(instrument) && (best_bid > static_cast<double>(instrument.luld_upper) ||
                                        best_ask < static_cast<double>(instrument.luld_lower))) [[unlikely]] {
        // Quotes outside the band must be left out one by one.
        return compute_nbbo(instrument);
    }
    Nbbo nbbo;
    if (best_bid != never_bid) [[likely]] {
        const BestSide side =
            gather_side(instrument, blocks, count, &QuoteBlock::bid, &QuoteBlock::bid_size, best_bid);
        nbbo.bid = side.price;
        nbbo.bid_size = side.total;
        nbbo.bid_mc = side.mc;
    }
    if (best_ask != never_ask) [[likely]] {
        const BestSide side =
            gather_side(instrument, blocks, count, &QuoteBlock::ask, &QuoteBlock::ask_size, best_ask);
        nbbo.ask = side.price;
        nbbo.ask_size = side.total;
        nbbo.ask_mc = side.mc;
    }
    return nbbo;
}

}  // namespace

Nbbo indexed_nbbo(const Instrument& instrument, const QuoteBlock* blocks) {
    if (instrument.quote_slots <= QuoteBlock::centres && instrument.quote_slots != 0) [[likely]] {
        return search_blocks(instrument, blocks, 1);
    }
    if (instrument.quote_slots > indexed_slots_max) {
        return compute_nbbo(instrument);
    }
    return search_blocks(instrument, blocks, quote_blocks(instrument.quote_slots));
}

namespace {

// First slot whose value is `wanted`; there is one.
std::size_t first_slot(const QuoteBlock* blocks, const Values QuoteBlock::*values, double wanted) {
    for (std::size_t block = 0;; ++block) {
        unsigned slots = 0;
#pragma GCC unroll 4
        for (std::size_t pair = 0; pair < pairs_per_block; ++pair) {
            const __m128d found = _mm_cmpeq_pd(load(blocks[block].*values, pair), _mm_set1_pd(wanted));
            slots |= static_cast<unsigned>(_mm_movemask_pd(found)) << (2 * pair);
        }
        if (slots != 0) {
            return block * QuoteBlock::centres + static_cast<std::size_t>(std::countr_zero(slots));
        }
    }
}

}  // namespace

BestOddLot indexed_best_odd_lot(const Instrument& instrument, const QuoteBlock* blocks, const Nbbo& nbbo) {
    const std::size_t count = quote_blocks(instrument.quote_slots);
    __m128d bids = _mm_set1_pd(never_bid);
    __m128d asks = _mm_set1_pd(never_ask);
    for (std::size_t block = 0; block < count; ++block) {
#pragma GCC unroll 4
        for (std::size_t pair = 0; pair < pairs_per_block; ++pair) {
            bids = _mm_max_pd(bids, load(blocks[block].odd_bid, pair));
            asks = _mm_min_pd(asks, load(blocks[block].odd_ask, pair));
        }
    }
    // If any order is inside the NBBO, the best of all is; of equal ones the first letter's is taken.
    const double best_bid = highest_of(bids);
    const double best_ask = lowest_of(asks);
    const bool has_bid = nbbo.bid != 0 ? best_bid > static_cast<double>(nbbo.bid) : best_bid != never_bid;
    const bool has_ask = nbbo.ask != 0 ? best_ask < static_cast<double>(nbbo.ask) : best_ask != never_ask;
    BestOddLot best;
    if (has_bid) {
        const ParticipantQuote& quote = instrument.quotes[first_slot(blocks, &QuoteBlock::odd_bid, best_bid)];
        best.bid = quote.odd_bid;
        best.sizes = static_cast<std::uint32_t>(quote.odd_bid_size) << 16;
        best.bid_mc = quote.mc;
    }
    if (has_ask) {
        const ParticipantQuote& quote = instrument.quotes[first_slot(blocks, &QuoteBlock::odd_ask, best_ask)];
        best.ask = quote.odd_ask;
        best.sizes |= quote.odd_ask_size;
        best.ask_mc = quote.mc;
    }
    return best;
}

}  // namespace tessel
