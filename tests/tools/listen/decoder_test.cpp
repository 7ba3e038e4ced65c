#include "listen/decoder.h"

#include <gtest/gtest.h>

#include "hand_made.h"
#include "listen/message_json.h"

namespace tessel::listen {
namespace {

using namespace hand_made;

// The record's texts are views into the bytes, which are kept here until the next call.
bool decode(Message& message, const std::string& bytes, std::string* error = nullptr) {
    static std::string data;
    data = bytes;
    return decode_message(message, raw(data), data.size(), error);
}

// One message of every kind and form, with the kind that it must decode to.
std::vector<std::pair<MessageKind, std::string>> one_of_each() {
    QuoteHand adf;
    adf.center = 'D';
    adf.nbbo = '3';
    adf.best_odd_lot = '5';
    adf.odd_lot_list = '5';
    adf.odd_lot_count = 1;
    adf.appendages = nbbo_long('Q', 190'010'000, 300, 'D', 190'030'000, 200) + "NITEGSCO" +
                     Bytes{}
                         .text("D", 1)
                         .price(190'020'000)
                         .number(7, 2)
                         .text(" ", 1)
                         .price(0)
                         .number(0, 2)
                         .text("NITE", 4)
                         .text("", 4)
                         .data +
                     Bytes{}.text("DB", 2).price(190'020'000).number(7, 2).text("NITE", 4).data;
    QuoteHand exchange;
    exchange.nbbo = '2';
    exchange.best_odd_lot = '2';
    exchange.odd_lot_list = '2';
    exchange.odd_lot_count = 2;
    exchange.appendages =
        nbbo_short('Q', 19001, 300, 'N', 19003, 400) +
        Bytes{}.text("Q", 1).number(19002, 2).number(9, 2).text("N", 1).number(19002, 2).number(11, 2).data +
        Bytes{}.text("QB", 2).number(19002, 2).number(9, 2).data +
        Bytes{}.text("QA", 2).number(19002, 2).number(8, 2).data;
    return {
        {MessageKind::start_of_day, header('C', 'I', 'E').data},
        {MessageKind::session_open, header('C', 'O', 'N').data},
        {MessageKind::wipe_out, header('C', 'P', 'Q').data},
        {MessageKind::decline_levels, decline_levels()},
        {MessageKind::directory_short, directory_short("AAPL")},
        {MessageKind::directory_long, directory_long("AAPL")},
        {MessageKind::indicator, indicator("AAPL")},
        {MessageKind::trading_action, trading_action("AAPL", 'H', 3, "T1")},
        {MessageKind::price_band, price_band("AAPL", 'A', 180'500'000, 199'500'000)},
        {MessageKind::collar, collar()},
        {MessageKind::mwcb_status, mwcb_status('2')},
        {MessageKind::end_of_snapshot, end_of_snapshot(77)},
        {MessageKind::odd_lots_short, header('Q', 'A', 'Q').text("AAPL", 5).text(" 04", 3).number(2, 2).data},
        {MessageKind::odd_lots_long,
         header('Q', 'B', 'Q').number(0, 8).text("AAPL", 11).text(" 10", 3).number(0, 2).data},
        {MessageKind::quote_short, quote_short(exchange)},
        {MessageKind::quote_long, quote_long(adf)},
        {MessageKind::mpid_quote, mpid_quote()},
        {MessageKind::trade_short, trade_short('N', ' ', 5, 19001, 200, "@F  ")},
        {MessageKind::trade_long, trade_long('N', "LONGSYMBOL", 5, 700'000'000, 200, "@   ")},
        {MessageKind::cancel_error, cancel_error('N', 'C', 5, 190'010'000, 200)},
        {MessageKind::correction, correction('N', 5, 6, 190'010'000, 190'020'000, 200)},
        {MessageKind::as_of, as_of(189'970'000)},
    };
}

TEST(ListenDecoder, EveryKind_DecodesAtItsLength_AndAtNoOther) {
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

TEST(ListenDecoder, UnknownCategoryOrType_IsReportedByItsBytes) {
    Message message;
    std::string error;
    EXPECT_FALSE(decode(message, header('X', 'Y', 'Q').data, &error));
    EXPECT_EQ(error, "unknown message: category 0x58 type 0x59, 29 bytes");
    EXPECT_FALSE(decode(message, header('Q', 'Z', 'Q').data, &error));
}

TEST(ListenDecoder, Header_HasItsFieldsAtTheirOffsets) {
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

TEST(ListenDecoder, ShortQuote_WithEveryAppendage) {
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

TEST(ListenDecoder, LongQuoteOfTheAdf_CarriesMpidsBetweenNbboAndOddLots) {
    Message message;
    ASSERT_TRUE(decode(message, one_of_each()[15].second));
    EXPECT_EQ(message.quote.adf_time_ns, 2u);
    EXPECT_EQ(message.quote.bid_mpid, "NITE");
    EXPECT_EQ(message.quote.ask_mpid, "GSCO");
    EXPECT_EQ(message.nbbo.ask_center, 'D');
    EXPECT_EQ(message.best_odd_lot.bid, 190'020'000);
    EXPECT_EQ(message.best_odd_lot.bid_mpid, "NITE");
    EXPECT_EQ(message.best_odd_lot.ask_mpid, "");
    ASSERT_EQ(message.odd_lots.size(), 1u);
    EXPECT_EQ(message.odd_lots[0].mpid, "NITE");
}

TEST(ListenDecoder, OddLotListIndicator4_HasACountButNoEntries) {
    QuoteHand quote;
    quote.odd_lot_list = '4';
    quote.odd_lot_count = 65535;
    Message message;
    ASSERT_TRUE(decode(message, quote_short(quote)));
    EXPECT_EQ(message.quote.odd_lot_count, 65535);
    EXPECT_TRUE(message.odd_lots.empty());
}

TEST(ListenDecoder, OddLotCountBeyondTheMessage_IsRefused) {
    QuoteHand quote;
    quote.odd_lot_list = '3';
    quote.odd_lot_count = 65535;
    quote.appendages.assign(12, 'Q');
    Message message;
    EXPECT_FALSE(decode(message, quote_long(quote)));
}

TEST(ListenDecoder, LongPrice_MayBeNegative) {
    Message message;
    ASSERT_TRUE(decode(message, trade_long('Q', "AAPL", 1, -10'000, 100, "@   ")));
    EXPECT_EQ(message.report.trade.price, -10'000);
}

TEST(ListenDecoder, CancelAndCorrection_HaveBothSetsOfStatistics) {
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

TEST(ListenMessageJson, Trade_ByName) {
    Message message;
    ASSERT_TRUE(decode(message, trade_short('D', 'N', 5, 19001, 200, "@   ")));
    std::string line;
    append_message_json(line, message, 42);
    EXPECT_EQ(
        line,
        R"({"seq":42,"kind":"trade_short","version":"1","category":"T","type":"M","market_center":"D",)"
        R"("sub_market_center":"N","sip_time_ns":1,"participant_time_ns":2,"participant_token":3,)"
        R"("trf_time_ns":2,"symbol":"AAPL","id":5,"price":190010000,"size":200000000,"conditions":"@   ",)"
        R"("trade_through_exempt":" ","consolidated_change":"7","participant_change":"7"})"
        "\n");
}

TEST(ListenMessageJson, EveryKind_IsOneLineWithItsKind_AndOddBytesAreEscaped) {
    for (const auto& [kind, data] : one_of_each()) {
        Message message;
        ASSERT_TRUE(decode(message, data));
        std::string line;
        append_message_json(line, message, 1);
        EXPECT_NE(line.find(std::string("\"kind\":\"") + kind_name(kind)), std::string::npos);
        EXPECT_EQ(line.find('\n'), line.size() - 1);
    }
    const std::string odd = trading_action("A\"\x01\xff", 'H', 1, "T1");
    Message message;
    ASSERT_TRUE(decode(message, odd));
    std::string line;
    append_message_json(line, message, 1);
    EXPECT_NE(line.find(R"("symbol":"A\"\u0001\u00ff")"), std::string::npos) << line;
}

TEST(ListenMessageJson, UndecodedMessage_IsShownAsBytes) {
    std::string line;
    append_undecoded_json(line, raw("1X"), 2, 9, "no \"such\" thing");
    EXPECT_EQ(line,
              "{\"seq\":9,\"kind\":\"unknown\",\"error\":\"no \\\"such\\\" thing\",\"bytes\":\"3158\"}\n");
}

}  // namespace
}  // namespace tessel::listen
