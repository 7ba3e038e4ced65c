#include "engine/quote_record.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

namespace tessel {
namespace {

using testing::TestMarket;

ParticipantQuote some_quote(char market_center) {
    ParticipantQuote quote;
    quote.market_center = market_center;
    quote.bid = 99 * cent;
    quote.ask = 101 * cent;
    quote.bid_size = 300;
    quote.ask_size = 200;
    quote.condition = 'R';
    quote.has_mpids = market_center == adf_market_center;
    return quote;
}

TEST(QuotePart, AdfQuote_HasItsTimeAndMpids) {
    TestMarket market({.symbols = "A:1"});
    QuoteRecord record;
    set_quote_part(record, market.at(0), some_quote('D'), 77);
    EXPECT_EQ(record.adf_time, 77u);
    EXPECT_EQ(record.adf_mpid_ind, '2');
    EXPECT_EQ(record.bid_mpid, "NITE");
    EXPECT_EQ(record.ask_mpid, "GSCO");
}

TEST(QuotePart, RecordUsedForTheAdfBefore_KeepsNothingOfItsIndicators) {
    TestMarket market({.symbols = "A:1"});
    QuoteRecord record;
    set_quote_part(record, market.at(0), some_quote('D'), 77);
    set_quote_part(record, market.at(0), some_quote('Q'), 78);
    EXPECT_EQ(record.header.market_center, 'Q');
    EXPECT_EQ(record.header.participant_time, 78u);
    EXPECT_EQ(record.adf_time, 0u);
    EXPECT_EQ(record.adf_mpid_ind, ' ');
    EXPECT_EQ(record.bid, 99 * cent);
    EXPECT_EQ(record.ask_size, 200u);
}

TEST(NbboPart, OneSide_IsConditionY) {
    QuoteRecord record;
    set_nbbo_part(record, {99 * cent, 101 * cent, 300, 200, 'Q', 'N'});
    EXPECT_EQ(record.nbbo_condition, 'R');
    EXPECT_EQ(record.nbbo_ask_market_center, 'N');
    set_nbbo_part(record, {0, 101 * cent, 0, 200, ' ', 'N'});
    EXPECT_EQ(record.nbbo_condition, 'Y');
}

TEST(WholeNbbo, NamelessCenterAndAMissingSide_IsNot) {
    ParticipantQuote quote = some_quote(' ');
    quote.ask = 0;
    quote.ask_size = 0;
    EXPECT_FALSE(is_whole_nbbo(quote, {99 * cent, 0, 300, 0, ' ', ' '}));
    EXPECT_TRUE(is_whole_nbbo(some_quote('Q'), {99 * cent, 101 * cent, 300, 200, 'Q', 'Q'}));
    EXPECT_FALSE(is_whole_nbbo(some_quote('Q'), {99 * cent, 101 * cent, 400, 200, 'Q', 'Q'}));
    EXPECT_FALSE(is_whole_nbbo(some_quote('Q'), {99 * cent, 101 * cent, 300, 200, 'Q', 'N'}));
}

TEST(BestOddLotPart, OneSideOfTheAdf_BringsThatSidesMpidOnly) {
    QuoteRecord record;
    const BestOddLot best{99 * cent, 101 * cent, 7, 8, 'D', 'Q'};
    EXPECT_TRUE(has_mpids(best));
    set_best_odd_lot_part(record, best);
    EXPECT_EQ(record.odd_bid_mpid, "NITE");
    EXPECT_EQ(record.odd_ask_mpid, "");
    EXPECT_EQ(record.odd_bid_size, 7);
    EXPECT_EQ(record.odd_ask_size, 8);
    EXPECT_FALSE(has_mpids({99 * cent, 101 * cent, 7, 8, 'Z', 'Q'}));
}

TEST(ListOddLots, NoneOrTwo_BidFirst) {
    ParticipantQuote quote;
    quote.market_center = 'D';
    OddLotList list;
    EXPECT_EQ(list_odd_lots(quote, list), 0u);
    quote.has_odd_lots = true;
    quote.odd_bid = 1;
    quote.odd_ask = 2;
    quote.odd_bid_size = 3;
    quote.odd_ask_size = 4;
    ASSERT_EQ(list_odd_lots(quote, list), 2u);
    EXPECT_EQ(list[0].side, 'B');
    EXPECT_EQ(list[0].price, 1);
    EXPECT_EQ(list[0].size, 3u);
    EXPECT_EQ(list[0].mpid, "NITE");
    EXPECT_EQ(list[1].side, 'A');
    EXPECT_EQ(list[1].mpid, "GSCO");
    quote.market_center = 'Q';
    list_odd_lots(quote, list);
    EXPECT_EQ(list[0].mpid, "");
}

}  // namespace
}  // namespace tessel
