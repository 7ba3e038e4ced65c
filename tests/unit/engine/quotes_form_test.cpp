#include "unit/engine/one_instrument.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace tessel {
namespace {

using testing::BestOddLotPart;
using testing::NbboPart;
using testing::OddLotPart;
using testing::OneInstrument;
using testing::QuoteView;

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
        OneInstrument single("A", row.symbol);
        const QuoteView& view = single.set('A', row.bid, row.bid_size, row.ask, row.ask_size);
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
    OneInstrument expensive("AB");
    expensive.set('A', 65536, 100, 65537, 100);
    const QuoteView above =
        expensive.set('B', 9999, 100, 10001, 100);  // its bid is no best bid, its ask is the best ask
    EXPECT_EQ(above.type, 'D');
    EXPECT_EQ(above.nbbo_ind, '3');
    EXPECT_EQ(above.nbbo, (NbboPart{'R', 'A', 'B', 655'360'000, 100'010'000, 100, 100}));
    EXPECT_EQ(expensive.set('B', 9999, 100, 10001, 100).type, 'C');  // no change: nothing to report

    OneInstrument large("AB");
    large.set('A', 9999, 65534, 10001, 100);
    EXPECT_EQ(large.set('B', 9998, 100, 10002, 100).type, 'C');
    const QuoteView view = large.set('B', 9999, 100, 10002, 100);
    EXPECT_EQ(view.type, 'D');
    EXPECT_EQ(view.nbbo, (NbboPart{'R', 'A', 'A', 99'990'000, 100'010'000, 65634, 100}));
}

TEST(QuoteForm, NbboSizesAt65534And65535_AreShortAndLong) {
    for (const std::uint32_t size : {34u, 35u}) {
        OneInstrument single("AB");
        single.set('A', 9999, 65500 - 66, 10001, 100);
        const QuoteView& view = single.set('B', 9999, 66 + size, 10001, 66);
        EXPECT_EQ(view.nbbo_ind, size == 34 ? '2' : '3');
        EXPECT_EQ(view.type, size == 34 ? 'C' : 'D');
    }
}

TEST(QuoteForm, ShortAppendagesInALongQuote_TurnLong) {
    OneInstrument single("AB", "TOOLONG:100");
    single.set('A', 9999, 100, 10001, 100);
    single.set_odd_lots('B', 10000, 5, 10000, 6);
    const QuoteView& view = single.set('B', 9999, 200, 10002, 100);
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
        OneInstrument single("A");
        single.set('A', 65535, 100, 65535, 100);
        single.set_odd_lots('A', bid, 5, 65535, 6);  // neither is inside the NBBO, but for 65536
        const QuoteView& view = single.set('A', 65535, 100, 65535, 100);
        EXPECT_EQ(view.type, type) << bid;
        EXPECT_EQ(view.list_ind, type == 'C' ? '2' : '3');
        EXPECT_EQ(view.odd_lots.at(0).price, bid * cent);
    }
}

TEST(QuoteForm, LuldIndicators_AreInTheirPlaces) {
    OneInstrument single("A");
    single.instrument().luld_lower = 100 * cent;
    single.instrument().luld_upper = 200 * cent;
    single.instrument().band_indicator = 'A';
    const QuoteView above = single.set('A', 201, 100, 99, 100);
    EXPECT_EQ(above.luld_bbo, 'C');
    EXPECT_EQ(above.luld_nbbo, 'A');  // neither side counts
    EXPECT_EQ(above.nbbo_ind, '1');
    const QuoteView at = single.set('A', 200, 100, 201, 100);
    EXPECT_EQ(at.luld_bbo, ' ');
    EXPECT_EQ(at.luld_nbbo, 'G');
    single.instrument().band_indicator = 'D';
    EXPECT_EQ(single.publish('A').luld_nbbo, ' ');
}

}  // namespace
}  // namespace tessel
