#include "unit/engine/one_instrument.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tessel {
namespace {

using testing::BestOddLotPart;
using testing::int_draw;
using testing::joined_draws;
using testing::NbboPart;
using testing::OddLotPart;
using testing::OneInstrument;
using testing::quote_draws;
using testing::QuoteView;
using testing::read_quote;
using testing::real_draw;
using testing::TestMarket;

// ------------------------------------------------------------------ drawing a quote

TEST(DrawnQuote, EveryDraw_IsTakenInItsOrder) {
    OneInstrument single;
    const QuoteView& view = single.draw('B', quote_draws(1, 3, 8, 2), ' ', 1234);
    EXPECT_EQ(view.bid, 99'990'000);
    EXPECT_EQ(view.ask, 100'030'000);
    EXPECT_EQ(view.bid_size, 800u);
    EXPECT_EQ(view.ask_size, 200u);
    EXPECT_EQ(view.condition, 'R');
    EXPECT_EQ(view.market_center, 'B');
    EXPECT_EQ(view.participant_time, 1234u);
    EXPECT_EQ(view.sip_flag, ' ');
    EXPECT_TRUE(single.quote('B').quoted);
    EXPECT_TRUE(single.quote('B').present);
    EXPECT_EQ(single.quote('B').time, 1234u);
    EXPECT_FALSE(single.quote('A').quoted);
    EXPECT_EQ(single.stats().quotes, 1u);
}

TEST(DrawnQuote, OneSided_EmptiesAskOrBidAndIsY) {
    const double below = 0.04 - 0x1p-50;
    struct Row {
        double u, v;
        bool has_bid, has_ask;
    };
    for (const Row& row : {Row{0.0, 0.0, true, false},
                           {below, 0.5 - 0x1p-50, true, false},
                           {below, 0.5, false, true},
                           {0.0, 0.999, false, true}}) {
        OneInstrument single;
        const QuoteView& view =
            single.draw('A', joined_draws({quote_draws(2, 2, 3, 4, row.u), {real_draw(row.v)}}));
        EXPECT_EQ(view.condition, 'Y');
        EXPECT_EQ(view.bid, row.has_bid ? 99'980'000 : 0);
        EXPECT_EQ(view.bid_size, row.has_bid ? 300u : 0u);
        EXPECT_EQ(view.ask, row.has_ask ? 100'020'000 : 0);
        EXPECT_EQ(view.ask_size, row.has_ask ? 400u : 0u);
    }
    OneInstrument single;
    EXPECT_EQ(single.draw('A', quote_draws(2, 2, 3, 4, 0.04)).condition, 'R');  // and no side is drawn
}

TEST(DrawnQuote, Override_IsTheConditionAndSavesItsDraws) {
    OneInstrument single;
    std::vector<std::uint64_t> draws = quote_draws(1, 1, 1, 1);
    draws.pop_back();
    const QuoteView& view = single.draw('A', draws, 'N');
    EXPECT_EQ(view.condition, 'N');
    EXPECT_EQ(view.nbbo_ind, '1');
    EXPECT_EQ(single.instrument().nbbo.bid, 0);
}

TEST(DrawnQuote, ReferenceOfOneToThreeCents_BidMayBeZeroWithASizeOrNegative) {
    OneInstrument single("A", "P:0.01", "odd_lot_every=1");
    const QuoteView view =
        single.draw('A', joined_draws({quote_draws(1, 1, 5, 1), {int_draw(1, 99, 7), int_draw(1, 99, 8)}}));
    EXPECT_EQ(view.bid, 0);
    EXPECT_EQ(view.bid_size, 500u);
    EXPECT_EQ(view.type, 'C');
    // An empty bid side puts its odd-lot order at the reference price.
    EXPECT_EQ(view.odd_lots, (std::vector<OddLotPart>{{'A', 'B', 10'000, 7, ""}, {'A', 'A', 10'000, 8, ""}}));
    const QuoteView negative =
        single.draw('A', joined_draws({quote_draws(3, 1, 5, 1), {int_draw(1, 99, 7), int_draw(1, 99, 8)}}));
    EXPECT_EQ(negative.type, 'D');
    EXPECT_EQ(negative.bid, -20'000);
    EXPECT_EQ(single.instrument().nbbo.bid, 0);
    EXPECT_EQ(single.instrument().nbbo.ask, 20'000);
}

TEST(DrawnQuote, OddLotEveryThird_OrdersAreACentInsideAndGoWithTheNextUpdate) {
    OneInstrument single("A", "IBM:100", "odd_lot_every=3");
    for (int round = 1; round <= 6; ++round) {
        std::vector<std::uint64_t> draws = quote_draws(2, 3, 1, 1);
        if (round % 3 == 0) {
            draws.push_back(int_draw(1, 99, 99));
            draws.push_back(int_draw(1, 99, 1));
        }
        const QuoteView& view = single.draw('A', draws);
        EXPECT_EQ(view.odd_lots, round % 3 != 0 ? std::vector<OddLotPart>()
                                                : (std::vector<OddLotPart>{{'A', 'B', 99'990'000, 99, ""},
                                                                           {'A', 'A', 100'020'000, 1, ""}}))
            << round;
        EXPECT_EQ(view.list_ind, round % 3 == 0 ? '2' : '0');
        EXPECT_EQ(view.entries, round % 3 == 0 ? 2 : 0);
    }
}

TEST(DrawnQuote, OddLotsWithAnEmptyAsk_AreAtTheReference) {
    OneInstrument single("A", "IBM:100", "odd_lot_every=1");
    const QuoteView& view =
        single.draw('A', joined_draws({quote_draws(1, 1, 1, 1, 0.0),
                                       {real_draw(0.1), int_draw(1, 99, 5), int_draw(1, 99, 6)}}));
    EXPECT_EQ(view.odd_lots,
              (std::vector<OddLotPart>{{'A', 'B', 100'000'000, 5, ""}, {'A', 'A', 100'000'000, 6, ""}}));
}

TEST(DrawnQuote, OddLotsWithAnEmptyBid_StandAtTheReference) {
    OneInstrument single("A", "IBM:100", "odd_lot_every=1");
    const QuoteView& view =
        single.draw('A', joined_draws({quote_draws(1, 1, 1, 1, 0.0),
                                       {real_draw(0.9), int_draw(1, 99, 5), int_draw(1, 99, 6)}}));
    EXPECT_EQ(view.odd_lots,
              (std::vector<OddLotPart>{{'A', 'B', 100'000'000, 5, ""}, {'A', 'A', 100'000'000, 6, ""}}));
}

// ------------------------------------------------------------------ reporting the NBBO

TEST(NbboIndicator, FirstQuoteStillWithoutNbbo_IsReportedOnceAndIsNoChange) {
    OneInstrument single;
    EXPECT_EQ(single.set('A', 0, 0, 0, 0).nbbo_ind, '1');
    EXPECT_TRUE(single.instrument().has_nbbo);
    EXPECT_EQ(single.stats().nbbo_changes, 0u);
    EXPECT_EQ(single.set('B', 0, 0, 0, 0).nbbo_ind, '0');
}

TEST(NbboIndicator, OneCenterIsTheWhole_ThenAnAppendage_ThenNoChange_ThenNone) {
    OneInstrument single;
    EXPECT_EQ(single.set('A', 9999, 100, 10001, 200).nbbo_ind, '4');
    const QuoteView joined = single.set('B', 9999, 300, 10002, 100);
    EXPECT_EQ(joined.nbbo_ind, '2');
    EXPECT_EQ(joined.nbbo, (NbboPart{'R', 'B', 'A', 99'990'000, 100'010'000, 400, 200}));
    EXPECT_EQ(joined.type, 'C');
    EXPECT_EQ(single.set('C', 9998, 100, 10005, 100).nbbo_ind, '0');
    EXPECT_EQ(single.stats().nbbo_changes, 2u);
    single.set('A', 0, 0, 0, 0);
    single.set('B', 0, 0, 0, 0);
    EXPECT_EQ(single.set('C', 0, 0, 0, 0).nbbo_ind, '1');
    EXPECT_EQ(single.stats().nbbo_changes, 5u);
}

TEST(NbboIndicator, QuoteIsNotTheWhole_WhenTheTotalIsMoreThanItsOwnSize) {
    OneInstrument single("AB");
    single.set('B', 9999, 100, 10001, 100);
    const QuoteView& view = single.set('A', 9999, 500, 10001, 500);
    EXPECT_EQ(view.nbbo_ind, '2');
    EXPECT_EQ(view.nbbo, (NbboPart{'R', 'A', 'A', 99'990'000, 100'010'000, 600, 600}));
}

TEST(NbboIndicator, OneSidedNbbo_IsAlwaysAnAppendageOfConditionY) {
    OneInstrument single;
    const QuoteView bid_only = single.set('A', 9999, 100, 0, 0);
    EXPECT_EQ(bid_only.nbbo_ind, '2');
    EXPECT_EQ(bid_only.nbbo, (NbboPart{'Y', 'A', ' ', 99'990'000, 0, 100, 0}));
    const QuoteView ask_only = single.set('A', 0, 0, 10001, 100);
    EXPECT_EQ(ask_only.nbbo_ind, '2');
    EXPECT_EQ(ask_only.nbbo, (NbboPart{'Y', ' ', 'A', 0, 100'010'000, 0, 100}));
}

TEST(NbboIndicator, OnlyACenterOrASizeDiffers_IsAChange) {
    OneInstrument single("AB");
    single.set('A', 9999, 100, 10001, 100);
    single.set('B', 9998, 100, 10002, 100);
    EXPECT_EQ(single.stats().nbbo_changes, 1u);
    EXPECT_EQ(single.set('A', 9999, 200, 10001, 100).nbbo_ind, '4');
    EXPECT_EQ(single.stats().nbbo_changes, 2u);
    single.set('B', 9999, 300, 10002, 100);
    EXPECT_EQ(single.set('A', 9999, 200, 10001, 100).nbbo_ind, '0');
    EXPECT_EQ(single.stats().nbbo_changes, 3u);
}

TEST(NbboIndicator, NonFirmQuoteOfAHalt_IsPublishedAndChangesNothing) {
    OneInstrument single("AB");
    single.set('A', 9999, 100, 10001, 100);
    const QuoteView& view = single.set('B', 10000, 900, 10000, 900, 'N');
    EXPECT_EQ(view.nbbo_ind, '0');
    EXPECT_EQ(view.condition, 'N');
    EXPECT_EQ(single.instrument().nbbo.bid, 99'990'000);
}

TEST(NbboIndicator, StaleQuotes_MayCrossTheMarketAndAreReportedAsTheyAre) {
    OneInstrument single("AB");
    single.set('A', 9999, 100, 10001, 100);
    EXPECT_EQ(single.set('B', 10050, 100, 10060, 100).nbbo,
              (NbboPart{'R', 'B', 'A', 100'500'000, 100'010'000, 100, 100}));
}

// ------------------------------------------------------------------ best odd-lot quote

TEST(BestOddLot, FoundUnchangedGone_AreReportedAs2And0And1) {
    OneInstrument single("AB");
    single.set('A', 9999, 100, 10003, 100);
    single.set_odd_lots('B', 10000, 5, 10002, 6);
    const QuoteView found = single.set('B', 9998, 100, 10004, 100);
    EXPECT_EQ(found.best_ind, '2');
    EXPECT_EQ(found.best, (BestOddLotPart{'B', 'B', 100'000'000, 100'020'000, 5, 6, ""}));
    EXPECT_EQ(found.type, 'C');
    EXPECT_EQ(single.instrument().has_best_odd_lot, true);
    EXPECT_EQ(single.instrument().best_odd_lot.bid_size, 5);
    EXPECT_EQ(single.instrument().best_odd_lot.ask_size, 6);
    EXPECT_EQ(single.publish('A').best_ind, '0');
    single.quote('B').has_odd_lots = false;
    EXPECT_EQ(single.publish('B').best_ind, '1');
    EXPECT_EQ(single.instrument().has_best_odd_lot, false);
    EXPECT_EQ(single.instrument().best_odd_lot.bid, 100'000'000);  // what was stored stays
    EXPECT_EQ(single.publish('B').best_ind, '0');
    // The same again after it was gone is reported again.
    single.set_odd_lots('B', 10000, 5, 10002, 6);
    EXPECT_EQ(single.publish('B').best_ind, '2');
}

TEST(BestOddLot, OnlyOrdersInsideTheNbboCount_AndAnEmptySideLetsAnyCount) {
    struct Row {
        std::int64_t odd_bid, odd_ask;
        char bid_market_center, ask_market_center;
        char indicator;
    };
    for (const Row& row : {Row{9999, 10003, ' ', ' ', '0'},
                           {10000, 10003, 'B', ' ', '2'},
                           {9999, 10002, ' ', 'B', '2'},
                           {10500, 9000, 'B', 'B', '2'}}) {
        OneInstrument single("AB");
        single.set('A', 9999, 100, 10003, 100);
        single.set_odd_lots('B', row.odd_bid, 5, row.odd_ask, 6);
        const QuoteView& view = single.set('B', 9998, 100, 10004, 100);
        EXPECT_EQ(view.best_ind, row.indicator) << row.odd_bid << ' ' << row.odd_ask;
        if (row.indicator == '2') {
            EXPECT_EQ(view.best, (BestOddLotPart{row.bid_market_center, row.ask_market_center,
                                                 row.bid_market_center == 'B' ? row.odd_bid * cent : 0,
                                                 row.ask_market_center == 'B' ? row.odd_ask * cent : 0,
                                                 row.bid_market_center == 'B' ? 5u : 0u,
                                                 row.ask_market_center == 'B' ? 6u : 0u, ""}));
        }
    }
    OneInstrument empty("A");
    empty.set_odd_lots('A', -5, 5, 60000, 6);
    const QuoteView& view = empty.set('A', 0, 0, 0, 0);
    EXPECT_EQ(view.best, (BestOddLotPart{'A', 'A', -50'000, 600'000'000, 5, 6, ""}));
    EXPECT_EQ(view.best_ind, '3');
    EXPECT_EQ(view.type, 'D');
}

TEST(BestOddLot, EqualOrders_TheFirstLetterKeepsTheSide_AndBetterOnesReplaceIt) {
    OneInstrument single("ABC");
    single.set('A', 9990, 100, 10010, 100);
    single.set_odd_lots('A', 10000, 1, 10005, 2);
    single.set_odd_lots('B', 10000, 3, 10004, 4);
    single.set_odd_lots('C', 9999, 5, 10004, 6);
    single.publish('A');
    single.publish('B');
    EXPECT_EQ(single.instrument().best_odd_lot.bid_market_center, 'A');
    EXPECT_EQ(single.instrument().best_odd_lot.ask_market_center, 'B');
    EXPECT_EQ(single.publish('C').best_ind, '0');
    single.set_odd_lots('C', 10001, 5, 10003, 6);
    EXPECT_EQ(single.publish('C').best, (BestOddLotPart{'C', 'C', 100'010'000, 100'030'000, 5, 6, ""}));
}

TEST(BestOddLot, OrdersOfACenterWhoseQuoteIsGone_AreStillThere) {
    OneInstrument single("AB");
    single.set('A', 9990, 100, 10010, 100);
    single.set_odd_lots('B', 10000, 3, 10004, 4);
    single.quote('B').present = false;
    EXPECT_EQ(single.publish('B').best_ind, '2');
    EXPECT_EQ(single.publish('A').best_ind, '0');
    EXPECT_EQ(single.instrument().best_odd_lot.bid_market_center, 'B');
}

TEST(BestOddLot, OrderOfTheAdf_BringsItsMpidsAndTheLongForm) {
    OneInstrument single("AD");
    single.set('A', 9990, 100, 10010, 100);
    single.set_odd_lots('D', 10000, 3, 10020, 4);
    single.publish('D');
    single.set_odd_lots('A', 9999, 7, 10005, 8);
    const QuoteView& view = single.publish('A');
    EXPECT_EQ(view.type, 'D');
    EXPECT_EQ(view.best_ind, '5');
    EXPECT_EQ(view.best, (BestOddLotPart{'D', 'A', 100'000'000, 100'050'000, 3, 8, "NITE    "}));
    EXPECT_EQ(view.list_ind, '3');
    EXPECT_EQ(view.mpid_ind, ' ');
}

// ------------------------------------------------------------------ counters, lines, emptied quotes

TEST(PublishQuote, SipFlagE_IsSentAndCounted) {
    OneInstrument single("A");
    EXPECT_EQ(single.publish('A', 'E').sip_flag, 'E');
    EXPECT_EQ(single.publish('A', ' ').sip_flag, ' ');
    EXPECT_EQ(single.stats().sip_generated, 1u);
    EXPECT_EQ(single.stats().quotes, 2u);
}

TEST(PublishQuote, TruthLine_HasTheQuotesNumberAndTheNewNbbo) {
    OneInstrument single("AB");
    single.set('A', 9999, 300, 10001, 200);
    EXPECT_EQ(single.market.truth_lines().back(),
              "{\"seq\":1,\"secid\":1,\"symbol\":\"IBM\",\"bid\":[[99.9900,300]],\"ask\":[[100.0100,200]],"
              "\"nbbo\":[99.9900,300,100.0100,200],\"status\":\"T\"}");
}

TEST(EmptyAllQuotes, LetterByLetterWithRepeats_ConditionLAndNothingElseKept) {
    OneInstrument single("QQND");
    single.draw('D', quote_draws(1, 1, 1, 1));
    single.draw('Q', quote_draws(1, 1, 1, 1));
    single.set_odd_lots('Q', 10000, 5, 10000, 5);
    const std::uint64_t before = single.market.last();
    empty_all_quotes(single.market.engine, single.instrument(), 99);
    EXPECT_EQ(single.market.letters_of(before + 1, single.market.last()),
              (std::vector<std::string>{"QCQ ", "QCQ ", "QCN ", "QDD "}));
    for (std::uint64_t sequence = before + 1; sequence <= single.market.last(); ++sequence) {
        const QuoteView view = read_quote(single.market.message(sequence));
        EXPECT_EQ(view.condition, 'L');
        EXPECT_EQ(view.sip_flag, ' ');
        EXPECT_EQ(view.bid | view.ask | view.bid_size | view.ask_size, 0);
        EXPECT_EQ(view.participant_time, 99u);
        EXPECT_EQ(view.entries, 0);
        if (view.market_center == 'D') {
            EXPECT_EQ(view.mpids, "NITEGSCO");  // they stay
        }
    }
    for (const char market_center : std::string("QND")) {
        EXPECT_TRUE(single.quote(market_center).present);
        EXPECT_TRUE(single.quote(market_center).quoted);
        EXPECT_EQ(single.quote(market_center).time, 99u);
        EXPECT_EQ(single.quote(market_center).condition, 'L');
    }
    EXPECT_EQ(single.instrument().nbbo.bid, 0);
}

TEST(EmptyAllQuotes, AdfThatNeverQuoted_SendsBlankMpids) {
    OneInstrument single("D");
    EXPECT_EQ(single.collect([&] { empty_all_quotes(single.market.engine, single.instrument(), 1); }).mpids,
              "        ");
}

// Whoever follows the indicators of the messages alone knows the NBBO and the best odd-lot quote after each.
TEST(EveryQuote_Seed11, ReceiverThatAppliesTheMessages_HasTheInstrumentsState) {
    TestMarket market({.symbols = "IBM:100,TOOLONG:700,P:0.02",
                       .participants = "QNPZKVDAB",
                       .scenario = "odd_lot_every=2",
                       .seed = 11});
    market.start_of_day();
    std::map<std::string, std::pair<NbboPart, BestOddLotPart>> reported;
    std::uint64_t sequence = 1;
    std::map<char, int> nbbo_seen;
    std::map<char, int> best_seen;
    for (int round = 0; round < 700; ++round) {
        for (; sequence <= market.last(); ++sequence) {
            const testing::Bytes message = market.message(sequence);
            if (testing::letters(message)[0] != 'Q' || testing::letters(message)[1] == 'M') {
                continue;
            }
            const QuoteView view = read_quote(message);
            auto& [nbbo, best] = reported[view.symbol.substr(0, 2)];
            ++nbbo_seen[view.nbbo_ind];
            ++best_seen[view.best_ind];
            switch (view.nbbo_ind) {
                case '0': break;
                case '1': nbbo = {'-', ' ', ' ', 0, 0, 0, 0}; break;
                case '4':
                    nbbo = {'-',      view.market_center, view.market_center, view.bid,
                            view.ask, view.bid_size,      view.ask_size};
                    break;
                default: nbbo = view.nbbo; break;
            }
            if (view.best_ind != '0') {
                best = view.best_ind == '1' ? BestOddLotPart() : view.best;
            }
        }
        for (std::size_t at = 0; at < 3; ++at) {
            const Instrument& instrument = market.at(at);
            auto& [nbbo, best] = reported[std::string(wire_symbol(instrument).substr(0, 2))];
            nbbo.condition = '-';
            ASSERT_EQ(nbbo,
                      (NbboPart{'-', instrument.nbbo.bid_market_center, instrument.nbbo.ask_market_center,
                                instrument.nbbo.bid, instrument.nbbo.ask, instrument.nbbo.bid_size,
                                instrument.nbbo.ask_size}))
                << "round " << round << ' ' << instrument.symbol;
            ASSERT_EQ(best.bid_market_center != '-', instrument.has_best_odd_lot);
            if (instrument.has_best_odd_lot) {
                best.mpids.clear();
                ASSERT_EQ(best, (BestOddLotPart{instrument.best_odd_lot.bid_market_center,
                                                instrument.best_odd_lot.ask_market_center,
                                                instrument.best_odd_lot.bid, instrument.best_odd_lot.ask,
                                                instrument.best_odd_lot.bid_size,
                                                instrument.best_odd_lot.ask_size, ""}));
            }
        }
        market.run_ticks(1);
    }
    for (const char indicator : std::string("0234")) {
        EXPECT_GT(nbbo_seen[indicator], 0) << indicator;
    }
    for (const char indicator : std::string("01235")) {
        EXPECT_GT(best_seen[indicator], 0) << indicator;
    }
}

}  // namespace
}  // namespace tessel
