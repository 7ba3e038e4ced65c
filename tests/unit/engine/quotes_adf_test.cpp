#include "unit/engine/one_instrument.h"

#include <gtest/gtest.h>

#include <vector>

namespace tessel {
namespace {

using testing::BestOddLotPart;
using testing::int_draw;
using testing::joined_draws;
using testing::OddLotPart;
using testing::OneInstrument;
using testing::quote_draws;
using testing::QuoteView;
using testing::read_quote;
using testing::real_draw;
using testing::TestMarket;

TEST(AdfQuote, FreshQuote_IsLongWithItsTimeAndMpids) {
    OneInstrument single("D");
    const QuoteView& view = single.draw('D', quote_draws(1, 1, 2, 3), ' ', 777);
    EXPECT_EQ(view.type, 'D');
    EXPECT_EQ(view.adf_time, 777u);
    EXPECT_EQ(view.mpid_ind, '2');
    EXPECT_EQ(view.mpids, "NITEGSCO");
    EXPECT_EQ(view.nbbo_ind, '4');
    EXPECT_EQ(single.stats().adf_quotes, 1u);
    EXPECT_EQ(single.market.message(1).size(), 91u);
}

TEST(AdfQuote, NextToAnotherCenter_CarriesALongNbbo_118Bytes) {
    OneInstrument single("AD");
    single.set('A', 9999, 100, 10001, 100);
    single.draw('D', quote_draws(1, 1, 2, 3));
    EXPECT_EQ(single.sent.at(0).nbbo_ind, '3');
    EXPECT_EQ(single.market.message(2).size(), 83u + 27u + 8u);
}

TEST(AdfQuote, OddLots_CarryMpidsInTheListAndTheBest) {
    OneInstrument single("D", "IBM:100", "odd_lot_every=1");
    const QuoteView& view =
        single.draw('D', joined_draws({quote_draws(3, 3, 1, 1), {int_draw(1, 99, 50), int_draw(1, 99, 60)}}));
    EXPECT_EQ(view.list_ind, '5');
    EXPECT_EQ(view.odd_lots, (std::vector<OddLotPart>{{'D', 'B', 99'980'000, 50, "NITE"},
                                                      {'D', 'A', 100'020'000, 60, "GSCO"}}));
    EXPECT_EQ(view.best_ind, '5');
    EXPECT_EQ(view.best, (BestOddLotPart{'D', 'D', 99'980'000, 100'020'000, 50, 60, "NITEGSCO"}));
}

TEST(AdfQuote, EverySeventhQuote_IsFollowedByAnMpidQuoteOutsideBookAndTruth) {
    OneInstrument single("D");
    for (int round = 1; round <= 21; ++round) {
        const QuoteView quote =
            single.draw('D', quote_draws(1 + round % 3, 2, 1, 1), ' ', 1000u + static_cast<unsigned>(round));
        ASSERT_EQ(single.sent.size(), round % 7 == 0 ? 2u : 1u) << round;
        if (round % 7 != 0) {
            continue;
        }
        const QuoteView& mpid = single.sent[1];
        EXPECT_EQ(mpid.type, 'M');
        EXPECT_EQ(mpid.market_center, 'D');
        EXPECT_EQ(mpid.symbol, "IBM        ");
        EXPECT_EQ(mpid.bid, quote.bid - 10'000);
        EXPECT_EQ(mpid.ask, quote.ask + 10'000);
        EXPECT_EQ(mpid.bid_size, 100u);
        EXPECT_EQ(mpid.ask_size, 100u);
        EXPECT_EQ(mpid.condition, 'R');
        EXPECT_EQ(mpid.mpids, "VIRT");
        EXPECT_EQ(mpid.participant_time, 1000u + static_cast<unsigned>(round));
        EXPECT_EQ(mpid.adf_time, mpid.participant_time);
        EXPECT_EQ(mpid.sip_time, quote.sip_time + 1);  // a separate reading
        EXPECT_EQ(single.instrument().nbbo.bid, quote.bid);
    }
    EXPECT_EQ(single.stats().quotes, 21u);
    EXPECT_EQ(single.stats().adf_quotes, 21u);
    EXPECT_EQ(single.market.truth_lines().size(), 21u);
    EXPECT_EQ(single.market.last(), 24u);
}

TEST(AdfQuote, SeventhWithOneSide_EmptyBidHasNoMpidQuote_EmptyAskIsTakenAsZero) {
    for (const double side : {0.1, 0.9}) {
        OneInstrument single("D");
        single.stats().quotes = 6;
        const QuoteView view =
            single.draw('D', joined_draws({quote_draws(1, 1, 1, 1, 0.0), {real_draw(side)}}));
        if (side > 0.5) {
            EXPECT_EQ(view.bid, 0);
            EXPECT_EQ(single.sent.size(), 1u);
        } else {
            ASSERT_EQ(single.sent.size(), 2u);
            EXPECT_EQ(single.sent[1].bid, 99'980'000);
            EXPECT_EQ(single.sent[1].ask, 10'000);
            EXPECT_EQ(single.sent[1].ask_size, 100u);
        }
    }
}

TEST(AdfQuote, SeventhQuoteOfAnotherCenter_HasNoMpidQuote) {
    OneInstrument single("AD");
    single.stats().quotes = 6;
    single.set('A', 9999, 100, 10001, 100);
    EXPECT_EQ(single.sent.size(), 1u);
    EXPECT_EQ(single.stats().adf_quotes, 0u);
}

TEST(AdfOnlyMarket, ThousandTicks_OnlyLongQuotesAndNoExchangePrint) {
    TestMarket market({.symbols = "IBM:100", .participants = "D"});
    market.run_ticks(1000);
    std::uint64_t quotes = 0;
    for (std::uint64_t sequence = 1; sequence <= market.last(); ++sequence) {
        const QuoteView view = read_quote(market.message(sequence));  // so there is nothing but quotes
        if (view.type == 'M') {
            EXPECT_EQ(quotes % 7, 0u);
        } else {
            ASSERT_EQ(view.type, 'D');
            ++quotes;
        }
    }
    EXPECT_EQ(quotes, market.scenario.stats.quotes);
    EXPECT_GT(quotes, 2000u);
    EXPECT_EQ(market.scenario.stats.trades, 0u);
}

}  // namespace
}  // namespace tessel
