#include "market/luld_indicator.h"

#include "unit/market/book.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace tessel {
namespace {

using testing::Book;

TEST(LuldBboIndicator, BidAboveAndAskBelowTheBand_AreIndicated) {
    struct Row {
        std::int64_t bid, ask;
        char expected;
    };
    Book book(1);
    for (const Row& row : {Row{200, 201, ' '},
                           {201, 201, 'A'},
                           {201, 100, 'A'},
                           {201, 99, 'C'},
                           {201, 0, 'A'},
                           {200, 99, 'B'},
                           {200, 100, ' '},
                           {0, 99, 'B'},
                           {0, 0, ' '},
                           {0, -1, ' '},
                           {300, -1, 'A'}}) {
        book.set_band(100, 200);
        EXPECT_EQ(luld_bbo_indicator(book.instrument, row.bid * cent, row.ask * cent), row.expected)
            << row.bid << ' ' << row.ask;
        book.instrument.band_indicator = 'D';
        EXPECT_EQ(luld_bbo_indicator(book.instrument, row.bid * cent, row.ask * cent), ' ');
    }
}

TEST(LuldNbboIndicator, EachRowOfTheTable_FirstMatchWins) {
    struct Row {
        std::int64_t bid, ask;
        char expected;
    };
    Book book(1);
    for (const Row& row : {Row{200, 100, 'I'},
                           {200, 201, 'G'},
                           {99, 100, 'H'},
                           {200, 200, 'E'},
                           {200, 0, 'E'},
                           {100, 100, 'F'},
                           {0, 100, 'F'},
                           {99, 201, 'D'},
                           {150, 201, 'C'},
                           {0, 201, 'C'},
                           {99, 150, 'B'},
                           {99, 0, 'B'},
                           {150, 160, 'A'},
                           {0, 0, 'A'},
                           {100, 200, 'A'}}) {
        Nbbo nbbo;
        nbbo.bid = row.bid * cent;
        nbbo.ask = row.ask * cent;
        book.set_band(100, 200);
        EXPECT_EQ(luld_nbbo_indicator(book.instrument, nbbo), row.expected) << row.bid << ' ' << row.ask;
        book.set_band(100, 0);
        EXPECT_EQ(luld_nbbo_indicator(book.instrument, nbbo), ' ');
    }
}

}  // namespace
}  // namespace tessel
