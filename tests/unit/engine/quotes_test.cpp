#include "engine/quotes.h"

#include "support/message_views.h"
#include "support/scripted_draws.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tessel {
namespace {

using testing::BestOddLotPart;
using testing::draws_left;
using testing::int_draw;
using testing::joined_draws;
using testing::MarketOptions;
using testing::NbboPart;
using testing::OddLotPart;
using testing::quote_draws;
using testing::QuoteView;
using testing::read_quote;
using testing::real_draw;
using testing::script_draws;
using testing::TestMarket;

// One instrument at $100 whose quotes a test sets itself.
struct Floor {
    TestMarket market;
    std::vector<QuoteView> sent;  // the views of what the last call sent

    explicit Floor(const std::string& participants = "ABC", const std::string& symbols = "IBM:100",
                   const std::string& scenario = "odd_lot_every=0")
        : market({.symbols = symbols, .participants = participants, .scenario = scenario}) {}

    Instrument& instrument() {
        return market.at(0);
    }
    FeedStats& stats() {
        return market.scenario.stats;
    }
    ParticipantQuote& quote(char market_center) {
        return *find_quote(instrument(), market_center);
    }
    std::uint16_t slot(char market_center) {
        return static_cast<std::uint16_t>(&quote(market_center) - instrument().quotes);
    }
    // Sends the center's quote as it stands.
    const QuoteView& publish(char market_center, char sip_flag = ' ', std::uint64_t now_ns = 5) {
        return collect(
            [&] { publish_quote(market.engine, instrument(), quote(market_center), sip_flag, now_ns); });
    }
    // Sets a quote, prices in cents, and sends it.
    const QuoteView& set(char market_center, std::int64_t bid, std::uint32_t bid_size, std::int64_t ask,
                         std::uint32_t ask_size, char condition = 'R') {
        ParticipantQuote& stored = quote(market_center);
        stored.quoted = true;
        stored.present = true;
        stored.bid = bid * cent;
        stored.ask = ask * cent;
        stored.bid_size = bid_size;
        stored.ask_size = ask_size;
        stored.condition = condition;
        return publish(market_center);
    }
    // Gives a center odd-lot orders; they go out with the next quote.
    void set_odd_lots(char market_center, std::int64_t bid, std::uint8_t bid_size, std::int64_t ask,
                      std::uint8_t ask_size) {
        ParticipantQuote& stored = quote(market_center);
        stored.has_odd_lots = true;
        stored.odd_bid = bid * cent;
        stored.odd_ask = ask * cent;
        stored.odd_bid_size = bid_size;
        stored.odd_ask_size = ask_size;
    }
    // A fresh quote from these draws, of which none may be left.
    const QuoteView& draw(char market_center, const std::vector<std::uint64_t>& draws, char condition = ' ',
                          std::uint64_t now_ns = 5) {
        script_draws(market.rng, draws);
        const QuoteView& view = collect([&] {
            update_participant_quote(market.engine, instrument(), slot(market_center), now_ns, condition);
        });
        EXPECT_EQ(draws_left(market.rng), 0u);
        return view;
    }
    template <typename Action>
    const QuoteView& collect(Action action) {
        const std::uint64_t before = market.last();
        action();
        sent.clear();
        for (std::uint64_t sequence = before + 1; sequence <= market.last(); ++sequence) {
            sent.push_back(read_quote(market.message(sequence)));
        }
        return sent.at(0);
    }
};

// ------------------------------------------------------------------ drawing a quote

TEST(DrawnQuote, EveryDraw_IsTakenInItsOrder) {
    Floor floor;
    const QuoteView& view = floor.draw('B', quote_draws(1, 3, 8, 2), ' ', 1234);
    EXPECT_EQ(view.bid, 99'990'000);
    EXPECT_EQ(view.ask, 100'030'000);
    EXPECT_EQ(view.bid_size, 800u);
    EXPECT_EQ(view.ask_size, 200u);
    EXPECT_EQ(view.condition, 'R');
    EXPECT_EQ(view.market_center, 'B');
    EXPECT_EQ(view.participant_time, 1234u);
    EXPECT_EQ(view.sip_flag, ' ');
    EXPECT_TRUE(floor.quote('B').quoted);
    EXPECT_TRUE(floor.quote('B').present);
    EXPECT_EQ(floor.quote('B').time, 1234u);
    EXPECT_FALSE(floor.quote('A').quoted);
    EXPECT_EQ(floor.stats().quotes, 1u);
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
        Floor floor;
        const QuoteView& view =
            floor.draw('A', joined_draws({quote_draws(2, 2, 3, 4, row.u), {real_draw(row.v)}}));
        EXPECT_EQ(view.condition, 'Y');
        EXPECT_EQ(view.bid, row.has_bid ? 99'980'000 : 0);
        EXPECT_EQ(view.bid_size, row.has_bid ? 300u : 0u);
        EXPECT_EQ(view.ask, row.has_ask ? 100'020'000 : 0);
        EXPECT_EQ(view.ask_size, row.has_ask ? 400u : 0u);
    }
    Floor floor;
    EXPECT_EQ(floor.draw('A', quote_draws(2, 2, 3, 4, 0.04)).condition, 'R');  // and no side is drawn
}

TEST(DrawnQuote, Override_IsTheConditionAndSavesItsDraws) {
    Floor floor;
    std::vector<std::uint64_t> draws = quote_draws(1, 1, 1, 1);
    draws.pop_back();
    const QuoteView& view = floor.draw('A', draws, 'N');
    EXPECT_EQ(view.condition, 'N');
    EXPECT_EQ(view.nbbo_ind, '1');
    EXPECT_EQ(floor.instrument().nbbo.bid, 0);
}

TEST(DrawnQuote, ReferenceOfOneToThreeCents_BidMayBeZeroWithASizeOrNegative) {
    Floor floor("A", "P:0.01", "odd_lot_every=1");
    const QuoteView view =
        floor.draw('A', joined_draws({quote_draws(1, 1, 5, 1), {int_draw(1, 99, 7), int_draw(1, 99, 8)}}));
    EXPECT_EQ(view.bid, 0);
    EXPECT_EQ(view.bid_size, 500u);
    EXPECT_EQ(view.type, 'C');
    // An empty bid side puts its odd-lot order at the reference price.
    EXPECT_EQ(view.odd_lots, (std::vector<OddLotPart>{{'A', 'B', 10'000, 7, ""}, {'A', 'A', 10'000, 8, ""}}));
    const QuoteView negative =
        floor.draw('A', joined_draws({quote_draws(3, 1, 5, 1), {int_draw(1, 99, 7), int_draw(1, 99, 8)}}));
    EXPECT_EQ(negative.type, 'D');
    EXPECT_EQ(negative.bid, -20'000);
    EXPECT_EQ(floor.instrument().nbbo.bid, 0);
    EXPECT_EQ(floor.instrument().nbbo.ask, 20'000);
}

TEST(DrawnQuote, OddLotEveryThird_OrdersStandACentInsideAndGoWithTheNextUpdate) {
    Floor floor("A", "IBM:100", "odd_lot_every=3");
    for (int round = 1; round <= 6; ++round) {
        std::vector<std::uint64_t> draws = quote_draws(2, 3, 1, 1);
        if (round % 3 == 0) {
            draws.push_back(int_draw(1, 99, 99));
            draws.push_back(int_draw(1, 99, 1));
        }
        const QuoteView& view = floor.draw('A', draws);
        EXPECT_EQ(view.odd_lots, round % 3 != 0 ? std::vector<OddLotPart>()
                                                : (std::vector<OddLotPart>{{'A', 'B', 99'990'000, 99, ""},
                                                                           {'A', 'A', 100'020'000, 1, ""}}))
            << round;
        EXPECT_EQ(view.list_ind, round % 3 == 0 ? '2' : '0');
        EXPECT_EQ(view.entries, round % 3 == 0 ? 2 : 0);
    }
}

TEST(DrawnQuote, OddLotsWithAnEmptyAsk_StandAtTheReference) {
    Floor floor("A", "IBM:100", "odd_lot_every=1");
    const QuoteView& view =
        floor.draw('A', joined_draws({quote_draws(1, 1, 1, 1, 0.0),
                                      {real_draw(0.1), int_draw(1, 99, 5), int_draw(1, 99, 6)}}));
    EXPECT_EQ(view.odd_lots,
              (std::vector<OddLotPart>{{'A', 'B', 100'000'000, 5, ""}, {'A', 'A', 100'000'000, 6, ""}}));
}

// ------------------------------------------------------------------ telling the NBBO

TEST(NbboIndicator, FirstQuoteStillWithoutNbbo_IsToldOnceAndIsNoChange) {
    Floor floor;
    EXPECT_EQ(floor.set('A', 0, 0, 0, 0).nbbo_ind, '1');
    EXPECT_TRUE(floor.instrument().has_nbbo);
    EXPECT_EQ(floor.stats().nbbo_changes, 0u);
    EXPECT_EQ(floor.set('B', 0, 0, 0, 0).nbbo_ind, '0');
}

TEST(NbboIndicator, OneCenterIsTheWhole_ThenAnAppendage_ThenNoChange_ThenNone) {
    Floor floor;
    EXPECT_EQ(floor.set('A', 9999, 100, 10001, 200).nbbo_ind, '4');
    const QuoteView joined = floor.set('B', 9999, 300, 10002, 100);
    EXPECT_EQ(joined.nbbo_ind, '2');
    EXPECT_EQ(joined.nbbo, (NbboPart{'R', 'B', 'A', 99'990'000, 100'010'000, 400, 200}));
    EXPECT_EQ(joined.type, 'C');
    EXPECT_EQ(floor.set('C', 9998, 100, 10005, 100).nbbo_ind, '0');
    EXPECT_EQ(floor.stats().nbbo_changes, 2u);
    floor.set('A', 0, 0, 0, 0);
    floor.set('B', 0, 0, 0, 0);
    EXPECT_EQ(floor.set('C', 0, 0, 0, 0).nbbo_ind, '1');
    EXPECT_EQ(floor.stats().nbbo_changes, 5u);
}

TEST(NbboIndicator, QuoteIsNotTheWhole_WhenTheTotalIsMoreThanItsOwnSize) {
    Floor floor("AB");
    floor.set('B', 9999, 100, 10001, 100);
    const QuoteView& view = floor.set('A', 9999, 500, 10001, 500);
    EXPECT_EQ(view.nbbo_ind, '2');
    EXPECT_EQ(view.nbbo, (NbboPart{'R', 'A', 'A', 99'990'000, 100'010'000, 600, 600}));
}

TEST(NbboIndicator, OneSidedNbbo_IsAlwaysAnAppendageOfConditionY) {
    Floor floor;
    const QuoteView bid_only = floor.set('A', 9999, 100, 0, 0);
    EXPECT_EQ(bid_only.nbbo_ind, '2');
    EXPECT_EQ(bid_only.nbbo, (NbboPart{'Y', 'A', ' ', 99'990'000, 0, 100, 0}));
    const QuoteView ask_only = floor.set('A', 0, 0, 10001, 100);
    EXPECT_EQ(ask_only.nbbo_ind, '2');
    EXPECT_EQ(ask_only.nbbo, (NbboPart{'Y', ' ', 'A', 0, 100'010'000, 0, 100}));
}

TEST(NbboIndicator, OnlyACenterOrASizeDiffers_IsAChange) {
    Floor floor("AB");
    floor.set('A', 9999, 100, 10001, 100);
    floor.set('B', 9998, 100, 10002, 100);
    EXPECT_EQ(floor.stats().nbbo_changes, 1u);
    EXPECT_EQ(floor.set('A', 9999, 200, 10001, 100).nbbo_ind, '4');
    EXPECT_EQ(floor.stats().nbbo_changes, 2u);
    floor.set('B', 9999, 300, 10002, 100);
    EXPECT_EQ(floor.set('A', 9999, 200, 10001, 100).nbbo_ind, '0');
    EXPECT_EQ(floor.stats().nbbo_changes, 3u);
}

TEST(NbboIndicator, NonFirmQuoteOfAHalt_IsPublishedAndChangesNothing) {
    Floor floor("AB");
    floor.set('A', 9999, 100, 10001, 100);
    const QuoteView& view = floor.set('B', 10000, 900, 10000, 900, 'N');
    EXPECT_EQ(view.nbbo_ind, '0');
    EXPECT_EQ(view.condition, 'N');
    EXPECT_EQ(floor.instrument().nbbo.bid, 99'990'000);
}

TEST(NbboIndicator, StaleQuotes_MayCrossTheMarketAndAreToldAsTheyAre) {
    Floor floor("AB");
    floor.set('A', 9999, 100, 10001, 100);
    EXPECT_EQ(floor.set('B', 10050, 100, 10060, 100).nbbo,
              (NbboPart{'R', 'B', 'A', 100'500'000, 100'010'000, 100, 100}));
}

// ------------------------------------------------------------------ choice of the form

TEST(QuoteForm, LimitsOfTheShortForm_LargestThatFitsAndNextThatDoesNot) {
    struct Row {
        const char* symbol;
        std::int64_t bid;
        std::uint32_t bid_size;
        std::int64_t ask;
        std::uint32_t ask_size;
        char type;
    };
    for (const Row& row : {Row{"IBM:1", 9999, 100, 10001, 100, 'C'},
                           {"ABCDE:1", 9999, 100, 10001, 100, 'C'},
                           {"ABCDEF:1", 9999, 100, 10001, 100, 'D'},
                           {":1", 9999, 100, 10001, 100, 'C'},
                           {"IBM:1", 9999, 100, 65535, 100, 'C'},
                           {"IBM:1", 9999, 100, 65536, 100, 'D'},
                           {"IBM:1", 65536, 100, 65535, 100, 'D'},
                           {"IBM:1", -1, 100, 10001, 100, 'D'},
                           {"IBM:1", 9999, 65534, 10001, 100, 'C'},
                           {"IBM:1", 9999, 65535, 10001, 100, 'D'},
                           {"IBM:1", 9999, 100, 10001, 65534, 'C'},
                           {"IBM:1", 9999, 100, 10001, 65535, 'D'},
                           {"IBM:1", 0, 0, 0, 0, 'C'}}) {
        Floor floor("A", row.symbol);
        const QuoteView& view = floor.set('A', row.bid, row.bid_size, row.ask, row.ask_size);
        EXPECT_EQ(view.type, row.type) << row.symbol << ' ' << row.bid << ' ' << row.ask;
        EXPECT_EQ(view.bid, row.bid * cent);
        EXPECT_EQ(view.ask, row.ask * cent);
        EXPECT_EQ(view.bid_size, row.bid_size);
        EXPECT_EQ(view.ask_size, row.ask_size);
        EXPECT_EQ(view.adf_time, 0u);
        EXPECT_EQ(view.mpid_ind, row.type == 'D' ? ' ' : '-');
    }
}

TEST(QuoteForm, NbboOutOfTheShortForm_MakesTheQuoteLong) {
    Floor dear("AB");
    dear.set('A', 65536, 100, 65537, 100);
    const QuoteView above =
        dear.set('B', 9999, 100, 10001, 100);  // its bid is no best bid, its ask is the best ask
    EXPECT_EQ(above.type, 'D');
    EXPECT_EQ(above.nbbo_ind, '3');
    EXPECT_EQ(above.nbbo, (NbboPart{'R', 'A', 'B', 655'360'000, 100'010'000, 100, 100}));
    EXPECT_EQ(dear.set('B', 9999, 100, 10001, 100).type, 'C');  // no change: nothing to tell

    Floor large("AB");
    large.set('A', 9999, 65534, 10001, 100);
    EXPECT_EQ(large.set('B', 9998, 100, 10002, 100).type, 'C');
    const QuoteView view = large.set('B', 9999, 100, 10002, 100);
    EXPECT_EQ(view.type, 'D');
    EXPECT_EQ(view.nbbo, (NbboPart{'R', 'A', 'A', 99'990'000, 100'010'000, 65634, 100}));
}

TEST(QuoteForm, NbboSizesAt65534And65535_AreShortAndLong) {
    for (const std::uint32_t size : {34u, 35u}) {
        Floor floor("AB");
        floor.set('A', 9999, 65500 - 66, 10001, 100);
        const QuoteView& view = floor.set('B', 9999, 66 + size, 10001, 66);
        EXPECT_EQ(view.nbbo_ind, size == 34 ? '2' : '3');
        EXPECT_EQ(view.type, size == 34 ? 'C' : 'D');
    }
}

TEST(QuoteForm, ShortAppendagesInALongQuote_TurnLong) {
    Floor floor("AB", "TOOLONG:100");
    floor.set('A', 9999, 100, 10001, 100);
    floor.set_odd_lots('B', 10000, 5, 10000, 6);
    const QuoteView& view = floor.set('B', 9999, 200, 10002, 100);
    EXPECT_EQ(view.type, 'D');
    EXPECT_EQ(view.nbbo_ind, '3');
    EXPECT_EQ(view.best_ind, '3');
    EXPECT_EQ(view.list_ind, '3');
    EXPECT_EQ(view.nbbo, (NbboPart{'R', 'B', 'A', 99'990'000, 100'010'000, 300, 100}));
    EXPECT_EQ(view.best, (BestOddLotPart{'B', 'B', 100'000'000, 100'000'000, 5, 6, ""}));
    EXPECT_EQ(view.odd_lots,
              (std::vector<OddLotPart>{{'B', 'B', 100'000'000, 5, ""}, {'B', 'A', 100'000'000, 6, ""}}));
    EXPECT_EQ(view.symbol, "TOOLONG    ");
}

TEST(QuoteForm, OwnOddLotPriceOutOfTheShortForm_MakesTheQuoteLong) {
    for (const auto& [bid, type] :
         {std::pair<std::int64_t, char>{65535, 'C'}, {65536, 'D'}, {0, 'C'}, {-1, 'D'}}) {
        Floor floor("A");
        floor.set('A', 65535, 100, 65535, 100);
        floor.set_odd_lots('A', bid, 5, 65535, 6);  // neither is inside the NBBO, but for 65536
        const QuoteView& view = floor.set('A', 65535, 100, 65535, 100);
        EXPECT_EQ(view.type, type) << bid;
        EXPECT_EQ(view.list_ind, type == 'C' ? '2' : '3');
        EXPECT_EQ(view.odd_lots.at(0).price, bid * cent);
    }
}

TEST(QuoteForm, LuldIndicators_StandInTheirPlaces) {
    Floor floor("A");
    floor.instrument().luld_lower = 100 * cent;
    floor.instrument().luld_upper = 200 * cent;
    floor.instrument().band_indicator = 'A';
    const QuoteView above = floor.set('A', 201, 100, 99, 100);
    EXPECT_EQ(above.luld_bbo, 'C');
    EXPECT_EQ(above.luld_nbbo, 'A');  // neither side counts
    EXPECT_EQ(above.nbbo_ind, '1');
    const QuoteView at = floor.set('A', 200, 100, 201, 100);
    EXPECT_EQ(at.luld_bbo, ' ');
    EXPECT_EQ(at.luld_nbbo, 'G');
    floor.instrument().band_indicator = 'D';
    EXPECT_EQ(floor.publish('A').luld_nbbo, ' ');
}

// ------------------------------------------------------------------ best odd-lot quote

TEST(BestOddLot, FoundUnchangedGone_AreToldAs2And0And1) {
    Floor floor("AB");
    floor.set('A', 9999, 100, 10003, 100);
    floor.set_odd_lots('B', 10000, 5, 10002, 6);
    const QuoteView found = floor.set('B', 9998, 100, 10004, 100);
    EXPECT_EQ(found.best_ind, '2');
    EXPECT_EQ(found.best, (BestOddLotPart{'B', 'B', 100'000'000, 100'020'000, 5, 6, ""}));
    EXPECT_EQ(found.type, 'C');
    EXPECT_EQ(floor.instrument().has_best_odd_lot, true);
    EXPECT_EQ(floor.instrument().best_odd_lot.bid_size, 5);
    EXPECT_EQ(floor.instrument().best_odd_lot.ask_size, 6);
    EXPECT_EQ(floor.publish('A').best_ind, '0');
    floor.quote('B').has_odd_lots = false;
    EXPECT_EQ(floor.publish('B').best_ind, '1');
    EXPECT_EQ(floor.instrument().has_best_odd_lot, false);
    EXPECT_EQ(floor.instrument().best_odd_lot.bid, 100'000'000);  // what was stored stays
    EXPECT_EQ(floor.publish('B').best_ind, '0');
    // The same again after it was gone is told again.
    floor.set_odd_lots('B', 10000, 5, 10002, 6);
    EXPECT_EQ(floor.publish('B').best_ind, '2');
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
        Floor floor("AB");
        floor.set('A', 9999, 100, 10003, 100);
        floor.set_odd_lots('B', row.odd_bid, 5, row.odd_ask, 6);
        const QuoteView& view = floor.set('B', 9998, 100, 10004, 100);
        EXPECT_EQ(view.best_ind, row.indicator) << row.odd_bid << ' ' << row.odd_ask;
        if (row.indicator == '2') {
            EXPECT_EQ(view.best, (BestOddLotPart{row.bid_market_center, row.ask_market_center,
                                                 row.bid_market_center == 'B' ? row.odd_bid * cent : 0,
                                                 row.ask_market_center == 'B' ? row.odd_ask * cent : 0,
                                                 row.bid_market_center == 'B' ? 5u : 0u,
                                                 row.ask_market_center == 'B' ? 6u : 0u, ""}));
        }
    }
    Floor empty("A");
    empty.set_odd_lots('A', -5, 5, 60000, 6);
    const QuoteView& view = empty.set('A', 0, 0, 0, 0);
    EXPECT_EQ(view.best, (BestOddLotPart{'A', 'A', -50'000, 600'000'000, 5, 6, ""}));
    EXPECT_EQ(view.best_ind, '3');
    EXPECT_EQ(view.type, 'D');
}

TEST(BestOddLot, EqualOrders_TheFirstLetterKeepsTheSide_AndBetterOnesReplaceIt) {
    Floor floor("ABC");
    floor.set('A', 9990, 100, 10010, 100);
    floor.set_odd_lots('A', 10000, 1, 10005, 2);
    floor.set_odd_lots('B', 10000, 3, 10004, 4);
    floor.set_odd_lots('C', 9999, 5, 10004, 6);
    floor.publish('A');
    floor.publish('B');
    EXPECT_EQ(floor.instrument().best_odd_lot.bid_market_center, 'A');
    EXPECT_EQ(floor.instrument().best_odd_lot.ask_market_center, 'B');
    EXPECT_EQ(floor.publish('C').best_ind, '0');
    floor.set_odd_lots('C', 10001, 5, 10003, 6);
    EXPECT_EQ(floor.publish('C').best, (BestOddLotPart{'C', 'C', 100'010'000, 100'030'000, 5, 6, ""}));
}

TEST(BestOddLot, OrdersOfACenterWhoseQuoteIsGone_StillStand) {
    Floor floor("AB");
    floor.set('A', 9990, 100, 10010, 100);
    floor.set_odd_lots('B', 10000, 3, 10004, 4);
    floor.quote('B').present = false;
    EXPECT_EQ(floor.publish('B').best_ind, '2');
    EXPECT_EQ(floor.publish('A').best_ind, '0');
    EXPECT_EQ(floor.instrument().best_odd_lot.bid_market_center, 'B');
}

TEST(BestOddLot, OrderOfTheAdf_BringsItsMpidsAndTheLongForm) {
    Floor floor("AD");
    floor.set('A', 9990, 100, 10010, 100);
    floor.set_odd_lots('D', 10000, 3, 10020, 4);
    floor.publish('D');
    floor.set_odd_lots('A', 9999, 7, 10005, 8);
    const QuoteView& view = floor.publish('A');
    EXPECT_EQ(view.type, 'D');
    EXPECT_EQ(view.best_ind, '5');
    EXPECT_EQ(view.best, (BestOddLotPart{'D', 'A', 100'000'000, 100'050'000, 3, 8, "NITE    "}));
    EXPECT_EQ(view.list_ind, '3');
    EXPECT_EQ(view.mpid_ind, ' ');
}

// ------------------------------------------------------------------ the ADF

TEST(AdfQuote, FreshQuote_IsLongWithItsTimeAndMpids) {
    Floor floor("D");
    const QuoteView& view = floor.draw('D', quote_draws(1, 1, 2, 3), ' ', 777);
    EXPECT_EQ(view.type, 'D');
    EXPECT_EQ(view.adf_time, 777u);
    EXPECT_EQ(view.mpid_ind, '2');
    EXPECT_EQ(view.mpids, "NITEGSCO");
    EXPECT_EQ(view.nbbo_ind, '4');
    EXPECT_EQ(floor.stats().adf_quotes, 1u);
    EXPECT_EQ(floor.market.message(1).size(), 91u);
}

TEST(AdfQuote, NextToAnotherCenter_CarriesALongNbbo_118Bytes) {
    Floor floor("AD");
    floor.set('A', 9999, 100, 10001, 100);
    floor.draw('D', quote_draws(1, 1, 2, 3));
    EXPECT_EQ(floor.sent.at(0).nbbo_ind, '3');
    EXPECT_EQ(floor.market.message(2).size(), 83u + 27u + 8u);
}

TEST(AdfQuote, OddLots_CarryMpidsInTheListAndTheBest) {
    Floor floor("D", "IBM:100", "odd_lot_every=1");
    const QuoteView& view =
        floor.draw('D', joined_draws({quote_draws(3, 3, 1, 1), {int_draw(1, 99, 50), int_draw(1, 99, 60)}}));
    EXPECT_EQ(view.list_ind, '5');
    EXPECT_EQ(view.odd_lots, (std::vector<OddLotPart>{{'D', 'B', 99'980'000, 50, "NITE"},
                                                      {'D', 'A', 100'020'000, 60, "GSCO"}}));
    EXPECT_EQ(view.best_ind, '5');
    EXPECT_EQ(view.best, (BestOddLotPart{'D', 'D', 99'980'000, 100'020'000, 50, 60, "NITEGSCO"}));
}

TEST(AdfQuote, EverySeventhQuote_IsFollowedByAnMpidQuoteOutsideBookAndTruth) {
    Floor floor("D");
    for (int round = 1; round <= 21; ++round) {
        const QuoteView quote =
            floor.draw('D', quote_draws(1 + round % 3, 2, 1, 1), ' ', 1000u + static_cast<unsigned>(round));
        ASSERT_EQ(floor.sent.size(), round % 7 == 0 ? 2u : 1u) << round;
        if (round % 7 != 0) {
            continue;
        }
        const QuoteView& mpid = floor.sent[1];
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
        EXPECT_EQ(mpid.sip_time, quote.sip_time + 1);  // a reading of its own
        EXPECT_EQ(floor.instrument().nbbo.bid, quote.bid);
    }
    EXPECT_EQ(floor.stats().quotes, 21u);
    EXPECT_EQ(floor.stats().adf_quotes, 21u);
    EXPECT_EQ(floor.market.truth_lines().size(), 21u);
    EXPECT_EQ(floor.market.last(), 24u);
}

TEST(AdfQuote, SeventhWithOneSide_EmptyBidHasNoMpidQuote_EmptyAskIsTakenAsZero) {
    for (const double side : {0.1, 0.9}) {
        Floor floor("D");
        floor.stats().quotes = 6;
        const QuoteView view =
            floor.draw('D', joined_draws({quote_draws(1, 1, 1, 1, 0.0), {real_draw(side)}}));
        if (side > 0.5) {
            EXPECT_EQ(view.bid, 0);
            EXPECT_EQ(floor.sent.size(), 1u);
        } else {
            ASSERT_EQ(floor.sent.size(), 2u);
            EXPECT_EQ(floor.sent[1].bid, 99'980'000);
            EXPECT_EQ(floor.sent[1].ask, 10'000);
            EXPECT_EQ(floor.sent[1].ask_size, 100u);
        }
    }
}

TEST(AdfQuote, SeventhQuoteOfAnotherCenter_HasNoMpidQuote) {
    Floor floor("AD");
    floor.stats().quotes = 6;
    floor.set('A', 9999, 100, 10001, 100);
    EXPECT_EQ(floor.sent.size(), 1u);
    EXPECT_EQ(floor.stats().adf_quotes, 0u);
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

// ------------------------------------------------------------------ counters, lines, emptied quotes

TEST(PublishQuote, SipFlagE_IsSentAndCounted) {
    Floor floor("A");
    EXPECT_EQ(floor.publish('A', 'E').sip_flag, 'E');
    EXPECT_EQ(floor.publish('A', ' ').sip_flag, ' ');
    EXPECT_EQ(floor.stats().sip_generated, 1u);
    EXPECT_EQ(floor.stats().quotes, 2u);
}

TEST(PublishQuote, TruthLine_HasTheQuotesNumberAndTheNewNbbo) {
    Floor floor("AB");
    floor.set('A', 9999, 300, 10001, 200);
    EXPECT_EQ(floor.market.truth_lines().back(),
              "{\"seq\":1,\"secid\":1,\"symbol\":\"IBM\",\"bid\":[[99.9900,300]],\"ask\":[[100.0100,200]],"
              "\"nbbo\":[99.9900,300,100.0100,200],\"status\":\"T\"}");
}

TEST(EmptyAllQuotes, LetterByLetterWithRepeats_ConditionLAndNothingElseKept) {
    Floor floor("QQND");
    floor.draw('D', quote_draws(1, 1, 1, 1));
    floor.draw('Q', quote_draws(1, 1, 1, 1));
    floor.set_odd_lots('Q', 10000, 5, 10000, 5);
    const std::uint64_t before = floor.market.last();
    empty_all_quotes(floor.market.engine, floor.instrument(), 99);
    EXPECT_EQ(floor.market.letters_of(before + 1, floor.market.last()),
              (std::vector<std::string>{"QCQ ", "QCQ ", "QCN ", "QDD "}));
    for (std::uint64_t sequence = before + 1; sequence <= floor.market.last(); ++sequence) {
        const QuoteView view = read_quote(floor.market.message(sequence));
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
        EXPECT_TRUE(floor.quote(market_center).present);
        EXPECT_TRUE(floor.quote(market_center).quoted);
        EXPECT_EQ(floor.quote(market_center).time, 99u);
        EXPECT_EQ(floor.quote(market_center).condition, 'L');
    }
    EXPECT_EQ(floor.instrument().nbbo.bid, 0);
}

TEST(EmptyAllQuotes, AdfThatNeverQuoted_SendsBlankMpids) {
    Floor floor("D");
    EXPECT_EQ(floor.collect([&] { empty_all_quotes(floor.market.engine, floor.instrument(), 1); }).mpids,
              "        ");
}

// Whoever follows the indicators of the messages alone knows the NBBO and the best odd-lot quote after each.
TEST(EveryQuote_Seed11, ReceiverThatAppliesTheMessages_StandsWhereTheInstrumentStands) {
    TestMarket market({.symbols = "IBM:100,TOOLONG:700,P:0.02",
                       .participants = "QNPZKVDAB",
                       .scenario = "odd_lot_every=2",
                       .seed = 11});
    market.start_of_day();
    std::map<std::string, std::pair<NbboPart, BestOddLotPart>> told;
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
            auto& [nbbo, best] = told[view.symbol.substr(0, 2)];
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
            auto& [nbbo, best] = told[std::string(wire_symbol(instrument).substr(0, 2))];
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
