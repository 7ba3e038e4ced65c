#include "market/quote_index.h"

#include "market/nbbo.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::testing {
namespace {

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
    quote.odd_ask = uniform_int(rng, -1, 5) * cent;
    // Now and then what the index has no place for.
    const std::int64_t strange = uniform_int(rng, 0, 60);
    if (strange == 0) {
        quote.bid = ((1 << 24) + uniform_int(rng, 0, 1)) * cent;
    } else if (strange == 1) {
        quote.ask_size =
            static_cast<std::uint32_t>(uniform_int(rng, 12, 13)) * 100 + 50 * (quote.present ? 1 : 0);
    } else if (strange == 2) {
        quote.odd_ask = price_cents_max * cent;
    }
    quote.odd_bid_size = static_cast<std::uint8_t>(uniform_int(rng, 1, 99));
    quote.odd_ask_size = static_cast<std::uint8_t>(uniform_int(rng, 1, 99));
}

std::string show(const PriceLevels& levels) {
    std::string text;
    for (std::size_t at = 0; at < levels.count; ++at) {
        text += std::to_string(levels.level[at].price) + "x" + std::to_string(levels.level[at].size) + " ";
    }
    return text;
}

// Both sides' levels are those of build_levels, whether the index can give them or not.
void compare_levels(const Instrument& instrument) {
    for (const std::size_t most : {std::size_t{1}, book_levels_max, truth_levels_max}) {
        PriceLevels bids;
        PriceLevels asks;
        list_levels(instrument, most, bids, asks);
        PriceLevels expected;
        build_levels(instrument, 'B', most, expected);
        ASSERT_EQ(show(bids), show(expected));
        build_levels(instrument, 'A', most, expected);
        ASSERT_EQ(show(asks), show(expected));
    }
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
        const BestQuotes best = find_best_quotes(instrument);
        ASSERT_TRUE(best.nbbo == walked) << "step " << step;
        ASSERT_TRUE(best.odd_lot == compute_best_odd_lot(instrument, walked)) << "step " << step;
        compare_levels(instrument);
    }
}

TEST(QuoteIndex, SevenCenters_AgreesWithAWalkThroughTheQuotes) {
    compare_many("QNPZKVD", false, 1);
    compare_many("QNPZKVD", true, 2);
}

TEST(QuoteIndex, OneCenter_AgreesWithAWalkThroughTheQuotes) {
    compare_many("D", false, 3);
}

TEST(QuoteIndex, ExactlyOneBlockAndOneMore_AgreeWithAWalkThroughTheQuotes) {
    compare_many("ABCDEFGH", true, 4);
    compare_many("ABCDEFGHI", true, 5);
}

TEST(QuoteIndex, MoreCentersThanBitsInAWord_AgreesWithAWalkThroughTheQuotes) {
    std::string letters;
    for (char letter = '!'; letter < '!' + 70; ++letter) {
        letters += letter;
    }
    compare_many(letters, false, 6);
}

TEST(QuoteIndex, NoCenters_HasNoNbbo) {
    TestMarket market({.symbols = "A:1", .participants = "", .truth = false});
    const BestQuotes best = find_best_quotes(market.at(0));
    EXPECT_TRUE(best.nbbo == Nbbo{});
    EXPECT_TRUE(is_none(best.odd_lot));
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
    const Nbbo nbbo = find_best_quotes(instrument).nbbo;
    EXPECT_EQ(nbbo.bid, quote.bid);
    EXPECT_EQ(nbbo.ask, quote.ask);
}

// One center's regular quote of these cents and lots.
void set_quote(Instrument& instrument, std::size_t slot, std::int64_t bid, std::int64_t ask,
               std::uint32_t lots) {
    ParticipantQuote& quote = instrument.quotes[slot];
    quote.present = true;
    quote.condition = 'R';
    quote.bid = bid * cent;
    quote.ask = ask * cent;
    quote.bid_size = lots * 100;
    quote.ask_size = lots * 100;
    index_quote(quote, instrument.blocks, slot);
}

TEST(LevelBuckets, DistancesFromTheBest_UpToTheLastBucket) {
    TestMarket market({.symbols = "A:1", .participants = "ABC", .truth = false});
    Instrument& instrument = market.at(0);
    LevelBuckets bids;
    LevelBuckets asks;
    ASSERT_TRUE(fill_level_buckets(instrument, bids, asks));
    EXPECT_EQ(bids.used, 0u);
    EXPECT_EQ(asks.used, 0u);
    set_quote(instrument, 0, 1'000, 1'010, 2);
    set_quote(instrument, 1, 1'000, 1'073, 12);
    set_quote(instrument, 2, 937, 1'012, 3);
    ASSERT_TRUE(fill_level_buckets(instrument, bids, asks));
    EXPECT_EQ(bids.best, 1'000);
    EXPECT_EQ(bids.used, std::uint64_t{1} | std::uint64_t{1} << 63);
    EXPECT_EQ(bids.lots[0], 14);
    EXPECT_EQ(bids.lots[63], 3);
    EXPECT_EQ(asks.best, 1'010);
    EXPECT_EQ(asks.used, std::uint64_t{0b101} | std::uint64_t{1} << 63);
    EXPECT_EQ(asks.lots[2], 3);
    set_quote(instrument, 2, 936, 1'012, 3);  // a cent too far
    EXPECT_FALSE(fill_level_buckets(instrument, bids, asks));
}

TEST(LevelBuckets, MoreLotsThanAByteCouldSum_OrPartsOfALot_AreNotTold) {
    TestMarket market({.symbols = "A:1", .participants = "ABCDEFGH", .truth = false});
    Instrument& instrument = market.at(0);
    LevelBuckets bids;
    LevelBuckets asks;
    for (std::size_t slot = 0; slot < 8; ++slot) {
        set_quote(instrument, slot, 100, 101, quote_lots_indexed);
    }
    ASSERT_TRUE(fill_level_buckets(instrument, bids, asks));
    EXPECT_EQ(bids.lots[0], level_lots_max);
    set_quote(instrument, 3, 100, 101, quote_lots_indexed + 1);
    EXPECT_FALSE(fill_level_buckets(instrument, bids, asks));
    set_quote(instrument, 3, 100, 101, 1);
    ASSERT_TRUE(fill_level_buckets(instrument, bids, asks));
    instrument.quotes[3].bid_size = 150;
    index_quote(instrument.quotes[3], instrument.blocks, 3);
    EXPECT_FALSE(fill_level_buckets(instrument, bids, asks));
}

TEST(LevelBuckets, ConditionThatCannotSetTheNbbo_IsALevelThatTheIndexDoesNotTell) {
    TestMarket market({.symbols = "A:1", .participants = "AB", .truth = false});
    Instrument& instrument = market.at(0);
    LevelBuckets bids;
    LevelBuckets asks;
    set_quote(instrument, 0, 100, 101, 1);
    set_quote(instrument, 1, 100, 101, 1);
    instrument.quotes[1].condition = 'N';
    index_quote(instrument.quotes[1], instrument.blocks, 1);
    EXPECT_FALSE(fill_level_buckets(instrument, bids, asks));
    instrument.quotes[1].bid_size = 0;
    instrument.quotes[1].ask = 0;
    index_quote(instrument.quotes[1], instrument.blocks, 1);
    EXPECT_TRUE(fill_level_buckets(instrument, bids, asks)) << "an empty quote makes no level";
}

}  // namespace
}  // namespace tessel::testing
