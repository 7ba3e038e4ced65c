#include "market/quote_index.h"

#include "market/nbbo.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace tessel::testing {
namespace {

auto as_tuple(const Nbbo& nbbo) {
    return std::tuple(nbbo.bid, nbbo.ask, nbbo.bid_size, nbbo.ask_size, nbbo.bid_mc, nbbo.ask_mc);
}

// The best odd-lot orders by one plain walk through the quotes.
BestOddLot walk_odd_lots(const Instrument& instrument, const Nbbo& nbbo) {
    BestOddLot best;
    for (std::size_t slot = 0; slot < instrument.quote_slots; ++slot) {
        const ParticipantQuote& quote = instrument.quotes[slot];
        if (!quote.has_odd_lots) {
            continue;
        }
        const bool bid_inside = nbbo.bid == 0 || quote.odd_bid > nbbo.bid;
        if (bid_inside && (best.bid_mc == ' ' || quote.odd_bid > best.bid)) {
            best.bid = quote.odd_bid;
            best.bid_mc = quote.mc;
            best.sizes = (best.sizes & 0xFFFFu) | static_cast<std::uint32_t>(quote.odd_bid_size) << 16;
        }
        const bool ask_inside = nbbo.ask == 0 || quote.odd_ask < nbbo.ask;
        if (ask_inside && (best.ask_mc == ' ' || quote.odd_ask < best.ask)) {
            best.ask = quote.odd_ask;
            best.ask_mc = quote.mc;
            best.sizes = (best.sizes & 0xFFFF0000u) | quote.odd_ask_size;
        }
    }
    return best;
}

// A quote of few possible prices, sizes and times, so that every kind of tie comes up.
void draw_quote(Random& rng, ParticipantQuote& quote) {
    quote.present = uniform_int(rng, 0, 9) != 0;
    quote.condition = "RRRRYAN L"[uniform_int(rng, 0, 8)];
    quote.bid = uniform_int(rng, -1, 4) * cent;
    quote.ask = uniform_int(rng, 0, 5) * cent;
    quote.bid_size = static_cast<std::uint32_t>(uniform_int(rng, 0, 3)) * 100 + (quote.present ? 0 : 50);
    quote.ask_size = static_cast<std::uint32_t>(uniform_int(rng, 0, 3)) * 100;
    quote.time = static_cast<std::uint64_t>(uniform_int(rng, 0, 2));
    quote.has_odd_lots = uniform_int(rng, 0, 2) == 0;
    quote.odd_bid = uniform_int(rng, 0, 5) * cent;
    quote.odd_ask = uniform_int(rng, 0, 5) * cent;
    quote.odd_bid_size = static_cast<std::uint8_t>(uniform_int(rng, 1, 99));
    quote.odd_ask_size = static_cast<std::uint8_t>(uniform_int(rng, 1, 99));
}

// Quotes change one at a time, as they do in a market; after each the index must say what the quotes say.
void compare_many(const std::string& participants, bool banded, std::uint64_t seed) {
    TestMarket market({.symbols = "A:1", .participants = participants, .truth = false});
    Instrument& instrument = market.at(0);
    Random rng;
    seed_random(rng, seed);
    if (banded) {
        instrument.luld_lower = 2 * cent;
        instrument.luld_upper = 3 * cent;
        instrument.band_indicator = 'B';
    }
    for (int step = 0; step < 3000; ++step) {
        const auto last = static_cast<std::int64_t>(instrument.quote_slots) - 1;
        const auto slot = static_cast<std::size_t>(uniform_int(rng, 0, last));
        draw_quote(rng, instrument.quotes[slot]);
        index_quote(instrument.quotes[slot], instrument.blocks, slot);
        const Nbbo walked = compute_nbbo(instrument);
        ASSERT_EQ(as_tuple(indexed_nbbo(instrument, instrument.blocks)), as_tuple(walked)) << "step " << step;
        const BestOddLot indexed = indexed_best_odd_lot(instrument, instrument.blocks, walked);
        const BestOddLot expected = walk_odd_lots(instrument, walked);
        ASSERT_EQ(std::tuple(indexed.bid, indexed.ask, indexed.sizes, indexed.bid_mc, indexed.ask_mc),
                  std::tuple(expected.bid, expected.ask, expected.sizes, expected.bid_mc, expected.ask_mc))
            << "step " << step;
    }
}

TEST(QuoteIndex, SevenCentres_AgreesWithAWalkThroughTheQuotes) {
    compare_many("QNPZKVD", false, 1);
    compare_many("QNPZKVD", true, 2);
}

TEST(QuoteIndex, OneCentre_AgreesWithAWalkThroughTheQuotes) {
    compare_many("D", false, 3);
}

TEST(QuoteIndex, ExactlyOneBlockAndOneMore_AgreeWithAWalkThroughTheQuotes) {
    compare_many("ABCDEFGH", true, 4);
    compare_many("ABCDEFGHI", true, 5);
}

TEST(QuoteIndex, MoreCentresThanBitsInAWord_AgreesWithAWalkThroughTheQuotes) {
    std::string letters;
    for (char letter = '!'; letter < '!' + 70; ++letter) {
        letters += letter;
    }
    compare_many(letters, false, 6);
}

TEST(QuoteIndex, NoCentres_HasNoNbbo) {
    TestMarket market({.symbols = "A:1", .participants = "", .truth = false});
    const Nbbo nbbo = indexed_nbbo(market.at(0), market.at(0).blocks);
    EXPECT_EQ(as_tuple(nbbo), as_tuple(Nbbo{}));
    EXPECT_EQ(indexed_best_odd_lot(market.at(0), market.at(0).blocks, nbbo).sizes, 0u);
}

TEST(QuoteIndex, LargestPossiblePrice_IsKeptToTheCent) {
    TestMarket market({.symbols = "A:1", .participants = "Q", .truth = false});
    Instrument& instrument = market.at(0);
    ParticipantQuote& quote = instrument.quotes[0];
    quote.present = true;
    quote.condition = 'R';
    quote.bid = (price_cents_max - 1) * cent;
    quote.ask = (price_cents_max + 3) * cent;
    quote.bid_size = 100;
    quote.ask_size = 800;
    index_quote(quote, instrument.blocks, 0);
    const Nbbo nbbo = indexed_nbbo(instrument, instrument.blocks);
    EXPECT_EQ(nbbo.bid, quote.bid);
    EXPECT_EQ(nbbo.ask, quote.ask);
}

}  // namespace
}  // namespace tessel::testing
