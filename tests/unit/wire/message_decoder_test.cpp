#include "wire/message_decoder.h"

#include "support/hand_made.h"

#include <gtest/gtest.h>

namespace tessel::receiver {
namespace {

using namespace hand_made;

TEST(MessageDecoder, EveryKind_DecodesAtItsLength_AndAtNoOther) {
    for (const auto& [kind, data] : one_of_each()) {
        Message message;
        ASSERT_TRUE(decode(message, data)) << kind_name(kind);
        EXPECT_EQ(message.kind, kind) << kind_name(kind);
        for (std::size_t length = 0; length < data.size(); ++length) {
            // A buffer of exactly this size, so that a read past the end is one past an allocation.
            const std::vector<unsigned char> cut(data.begin(),
                                                 data.begin() + static_cast<std::ptrdiff_t>(length));
            std::string error;
            EXPECT_FALSE(decode_message(message, cut.data(), length, &error))
                << kind_name(kind) << ' ' << length;
            EXPECT_EQ(message.kind, MessageKind::unknown);
            EXPECT_FALSE(error.empty());
        }
        EXPECT_FALSE(decode(message, data + " ")) << kind_name(kind) << " and one byte more";
    }
}

TEST(MessageDecoder, UnknownCategoryOrType_IsReportedByItsBytes) {
    Message message;
    std::string error;
    EXPECT_FALSE(decode(message, header('X', 'Y', 'Q').data, &error));
    EXPECT_EQ(error, "unknown message: category 0x58 type 0x59, 29 bytes");
    EXPECT_FALSE(decode(message, header('Q', 'Z', 'Q').data, &error));
}

TEST(MessageDecoder, Header_HasItsFieldsAtTheirOffsets) {
    Message message;
    ASSERT_TRUE(decode(message,
                       Bytes{}.bytes("1COZ ").number(0x0102030405060708, 8).number(9, 8).number(10, 8).data));
    EXPECT_EQ(message.header.version, '1');
    EXPECT_EQ(message.header.category, 'C');
    EXPECT_EQ(message.header.type, 'O');
    EXPECT_EQ(message.header.market_center, 'Z');
    EXPECT_EQ(message.header.sub_market_center, ' ');
    EXPECT_EQ(message.header.sip_time_ns, 0x0102030405060708u);
    EXPECT_EQ(message.header.participant_time_ns, 9u);
    EXPECT_EQ(message.header.participant_token, 10u);
}

TEST(MessageDecoder, ShortQuote_WithEveryAppendage) {
    Message message;
    ASSERT_TRUE(decode(message, one_of_each()[14].second));
    EXPECT_EQ(message.symbol, "AAPL");
    EXPECT_EQ(message.quote.bid, 190'010'000);
    EXPECT_EQ(message.quote.bid_size, 300u);
    EXPECT_EQ(message.quote.ask, 190'030'000);
    EXPECT_EQ(message.quote.ask_size, 200u);
    EXPECT_EQ(message.nbbo.ask_center, 'N');
    EXPECT_EQ(message.nbbo.ask, 190'030'000);
    EXPECT_EQ(message.nbbo.ask_size, 400u);
    EXPECT_EQ(message.best_odd_lot.bid_center, 'Q');
    EXPECT_EQ(message.best_odd_lot.ask_center, 'N');
    EXPECT_EQ(message.best_odd_lot.ask, 190'020'000);
    EXPECT_EQ(message.best_odd_lot.ask_size, 11);
    ASSERT_EQ(message.odd_lots.size(), 2u);
    EXPECT_EQ(message.odd_lots[1].side, 'A');
    EXPECT_EQ(message.odd_lots[1].size, 8);
}

TEST(MessageDecoder, LongQuoteOfTheAdf_CarriesMpidsBetweenNbboAndOddLots) {
    Message message;
    ASSERT_TRUE(decode(message, one_of_each()[15].second));
    EXPECT_EQ(message.quote.adf_time_ns, 2u);
    EXPECT_EQ(message.quote.bid_mpid, "NITE");
    EXPECT_EQ(message.quote.ask_mpid, "GSCO");
    EXPECT_EQ(message.nbbo.ask_center, 'D');
    EXPECT_EQ(message.nbbo.bid_size, 300u);
    EXPECT_EQ(message.nbbo.ask_size, 200u);
    EXPECT_EQ(message.best_odd_lot.bid, 190'020'000);
    EXPECT_EQ(message.best_odd_lot.bid_mpid, "NITE");
    EXPECT_EQ(message.best_odd_lot.ask_mpid, "");
    ASSERT_EQ(message.odd_lots.size(), 1u);
    EXPECT_EQ(message.odd_lots[0].mpid, "NITE");
}

TEST(MessageDecoder, OddLotListIndicator4_HasACountButNoEntries) {
    QuoteHand quote;
    quote.odd_lot_list = '4';
    quote.odd_lot_count = 65535;
    Message message;
    ASSERT_TRUE(decode(message, quote_short(quote)));
    EXPECT_EQ(message.quote.odd_lot_count, 65535);
    EXPECT_TRUE(message.odd_lots.empty());
}

TEST(MessageDecoder, SecondMessageInOneRecord_HasOnlyItsOwnOddLots) {
    Message message;
    ASSERT_TRUE(decode(message, one_of_each()[14].second));
    ASSERT_EQ(message.odd_lots.size(), 2u);
    ASSERT_TRUE(decode(message, one_of_each()[15].second));
    ASSERT_EQ(message.odd_lots.size(), 1u);
    EXPECT_EQ(message.odd_lots[0].center, 'D');
    ASSERT_TRUE(decode(message, quote_long(QuoteHand{})));
    EXPECT_TRUE(message.odd_lots.empty());
}

TEST(MessageDecoder, LongDirectory_HasTheTradingStateBeforeItsReason) {
    Message message;
    ASSERT_TRUE(decode(message, directory_long("AAPL")));
    EXPECT_EQ(message.directory.round_lot, 100);
    EXPECT_EQ(message.directory.flag_92, '3');
    EXPECT_EQ(message.directory.state, 'H');
    EXPECT_EQ(message.directory.reason, "T1");
    EXPECT_EQ(message.directory.indicator, '0');
}

TEST(MessageDecoder, OddLotCountBeyondTheMessage_IsRefused) {
    QuoteHand quote;
    quote.odd_lot_list = '3';
    quote.odd_lot_count = 65535;
    quote.appendages.assign(12, 'Q');
    Message message;
    EXPECT_FALSE(decode(message, quote_long(quote)));
}

TEST(MessageDecoder, LongPrice_MayBeNegative) {
    Message message;
    ASSERT_TRUE(decode(message, trade_long('Q', "AAPL", 1, -10'000, 100, "@   ")));
    EXPECT_EQ(message.report.trade.price, -10'000);
}

TEST(MessageDecoder, CancelAndCorrection_HaveBothSetsOfStatistics) {
    Message message;
    ASSERT_TRUE(decode(message, cancel_error('N', 'E', 5, 190'010'000, 200)));
    EXPECT_EQ(message.report.function, 'E');
    EXPECT_EQ(message.report.consolidated, (SaleStatistics{11, 12, 13, 14}));
    EXPECT_EQ(message.report.last_center, 'Q');
    EXPECT_EQ(message.report.participant, (SaleStatistics{21, 22, 23, 24}));
    ASSERT_TRUE(decode(message, correction('N', 5, 6, 190'010'000, 190'020'000, 300)));
    EXPECT_EQ(message.report.trade.id, 5u);
    EXPECT_EQ(message.report.corrected.id, 6u);
    EXPECT_EQ(message.report.corrected.price, 190'020'000);
    EXPECT_EQ(message.report.corrected.size, 300'000'000u);
    EXPECT_EQ(message.report.participant, (SaleStatistics{21, 22, 23, 24}));
}

}  // namespace
}  // namespace tessel::receiver
