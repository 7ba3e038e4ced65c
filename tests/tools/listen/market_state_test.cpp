#include "listen/market_state.h"

#include <gtest/gtest.h>

#include "hand_made.h"
#include "listen/truth_line.h"

namespace tessel::listen {
namespace {

using namespace hand_made;

struct Heard {
    Market market;
    std::uint64_t sequence = 0;

    // Applies the message under the next number and returns its line, empty when it has none.
    std::string take(const std::string& data) {
        ++sequence;
        apply_message(market, raw(data), data.size(), sequence);
        std::string line;
        const bool has_line = append_truth_line(line, market, raw(data), data.size(), sequence);
        EXPECT_EQ(has_line, !line.empty());
        return line;
    }
};

QuoteHand quote_of(char center, std::int64_t bid_cents, std::uint32_t bid_size, std::int64_t ask_cents,
                   std::uint32_t ask_size) {
    QuoteHand quote;
    quote.center = center;
    quote.bid = bid_cents * 10'000;
    quote.bid_size = bid_size;
    quote.ask = ask_cents * 10'000;
    quote.ask_size = ask_size;
    return quote;
}

TEST(ListenTruthLine, Quote_AggregatesLevelsOfAllConditions_BestFirst) {
    Heard heard;
    heard.take(directory_short("AAPL"));
    heard.take(quote_short(quote_of('N', 19000, 500, 0, 0)));
    QuoteHand halted = quote_of('P', 19001, 100, 19005, 400);
    halted.condition = 'N';
    heard.take(quote_short(halted));
    QuoteHand last = quote_of('Q', 19001, 200, 19003, 200);
    last.nbbo = '2';
    last.appendages = nbbo_short('Q', 19001, 200, 'Q', 19003, 200);
    EXPECT_EQ(
        heard.take(quote_short(last)),
        "{\"seq\":4,\"secid\":1,\"symbol\":\"AAPL\",\"bid\":[[190.0100,300],[190.0000,500]],"
        "\"ask\":[[190.0300,200],[190.0500,400]],\"nbbo\":[190.0100,200,190.0300,200],\"status\":\"T\"}\n");
}

TEST(ListenTruthLine, TwelveLevels_TheBestTenAreShown) {
    Heard heard;
    heard.take(directory_short("AAPL"));
    std::string line;
    for (int i = 0; i < 12; ++i) {
        line = heard.take(quote_short(quote_of(static_cast<char>('A' + i), 100 + i, 100, 200 + i, 100)));
    }
    const std::string bids = line.substr(line.find("\"bid\""), line.find(",\"ask\"") - line.find("\"bid\""));
    EXPECT_EQ(std::count(bids.begin(), bids.end(), '.'), 10);
    EXPECT_NE(bids.find("[[1.1100,100],[1.1000,100]"), std::string::npos) << bids;
    EXPECT_EQ(bids.find("1.0100"), std::string::npos) << bids;
}

TEST(ListenTruthLine, NothingKnown_ShowsEmptySides_AndNoSecid) {
    Heard heard;
    EXPECT_EQ(
        heard.take(trading_action("ZZZ", 'H', 1, "T1")),
        "{\"seq\":1,\"symbol\":\"ZZZ\",\"bid\":[],\"ask\":[],\"nbbo\":[0.0000,0,0.0000,0],\"status\":\"H\","
        "\"ah\":\"H\",\"reason\":\"T1\"}\n");
}

TEST(ListenTruthLine, Nbbo_FollowsItsIndicators) {
    Heard heard;
    heard.take(directory_short("AAPL"));
    QuoteHand whole = quote_of('Q', 1000, 300, 1002, 200);
    whole.nbbo = '4';
    heard.take(quote_short(whole));
    const Instrument& instrument = heard.market.instruments[0];
    EXPECT_EQ(instrument.nbbo, (Nbbo{10'000'000, 10'020'000, 300, 200, 'Q', 'Q'}));
    heard.take(quote_short(quote_of('N', 990, 100, 1010, 100)));  // "0": as it was
    EXPECT_EQ(instrument.nbbo, (Nbbo{10'000'000, 10'020'000, 300, 200, 'Q', 'Q'}));
    QuoteHand told = quote_of('P', 70'000, 100, 70'001, 100);
    told.nbbo = '3';
    told.appendages = nbbo_long('P', 700'000'000, 100, 'N', 10'100'000, 70'000);
    heard.take(quote_long(told));
    EXPECT_EQ(instrument.nbbo, (Nbbo{700'000'000, 10'100'000, 100, 70'000, 'P', 'N'}));
    QuoteHand none = quote_of('P', 0, 0, 0, 0);
    none.nbbo = '1';
    heard.take(quote_short(none));
    EXPECT_EQ(instrument.nbbo, Nbbo{});
}

TEST(ListenTruthLine, Band_IsShownOnlyWhileInForce) {
    Heard heard;
    heard.take(directory_short("AAPL"));
    const std::string shown = ",\"band\":[180.5000,199.5000],\"status\":\"T\",\"ap\":\"";
    for (const char indicator : std::string("ABCEG")) {
        const std::string line = heard.take(price_band("AAPL", indicator, 180'500'000, 199'500'000));
        EXPECT_NE(line.find(shown + indicator + "\"}\n"), std::string::npos) << line;
    }
    EXPECT_EQ(heard.take(price_band("AAPL", 'D', 180'500'000, 199'500'000)).find("\"band\""),
              std::string::npos);
    EXPECT_EQ(heard.take(price_band("AAPL", 'A', 0, 199'500'000)).find("\"band\""), std::string::npos);
    EXPECT_EQ(heard.take(price_band("AAPL", 'A', 180'500'000, 0)).find("\"band\""), std::string::npos);
}

TEST(ListenTruthLine, TradeKind_ComesFromCentreAndConditions) {
    Heard heard;
    heard.take(directory_short("AAPL"));
    EXPECT_EQ(heard.take(trade_short('N', ' ', 5, 19001, 37, "@  I")),
              "{\"seq\":2,\"secid\":1,\"symbol\":\"AAPL\",\"trade\":[190.0100,37,\"N\",\"@  "
              "I\"],\"kind\":0,\"id\":5}\n");
    EXPECT_NE(heard.take(trade_short('D', 'N', 1, 19001, 100, "@   ")).find("\"kind\":1,"),
              std::string::npos);
    EXPECT_NE(heard.take(trade_short('N', ' ', 1, 19001, 100, "@F  ")).find("\"kind\":0,"),
              std::string::npos);
    for (const char* cross : {"@O  ", "@5  ", "@6  ", "@  M"}) {
        EXPECT_NE(heard.take(trade_short('Q', ' ', 1, 19001, 0, cross)).find("\"kind\":2,"),
                  std::string::npos);
    }
}

TEST(ListenTruthLine, CancelCorrectionAsOfAndBreaker) {
    Heard heard;
    heard.take(directory_short("AAPL"));
    EXPECT_EQ(heard.take(cancel_error('N', 'E', 5, 190'010'000, 200)),
              "{\"seq\":2,\"secid\":1,\"symbol\":\"AAPL\",\"cancel_error\":[5,190.0100,200,\"N\",\"E\"]}\n");
    EXPECT_EQ(heard.take(correction('N', 5, 6, 190'010'000, 190'020'000, 300)),
              "{\"seq\":3,\"secid\":1,\"symbol\":\"AAPL\",\"correction\":[5,6,190.0200,300,\"N\"]}\n");
    EXPECT_EQ(heard.take(as_of(189'970'000)),
              "{\"seq\":4,\"secid\":1,\"symbol\":\"AAPL\",\"asof\":[189.97,300,\"D\",\"@   \"]}\n");
    EXPECT_NE(heard.take(as_of(1'234'567'800)).find("[1234.57,"), std::string::npos);
    EXPECT_NE(heard.take(as_of(-20'000)).find("[-0.02,"), std::string::npos);
    EXPECT_EQ(heard.take(mwcb_status('2')), "{\"seq\":7,\"mwcb\":2}\n");
}

TEST(ListenTruthLine, NegativeAndFinePrices) {
    Heard heard;
    heard.take(directory_short("AAPL"));
    EXPECT_NE(heard.take(trade_long('Q', "AAPL", 1, -10'000, 1, "@   ")).find("[-0.0100,1,"),
              std::string::npos);
    EXPECT_NE(heard.take(trade_long('Q', "AAPL", 1, 1'234'567, 1, "@   ")).find("[1.2346,1,"),
              std::string::npos);
    EXPECT_NE(heard.take(trade_long('Q', "AAPL", 1, INT64_MIN, 1, "@   ")).find("-9223372036854.7"),
              std::string::npos);
}

TEST(ListenTruthLine, MessagesWithoutALine) {
    Heard heard;
    for (const std::string& data :
         {header('C', 'I', 'E').data, header('C', 'O', 'N').data, header('C', 'P', 'Q').data,
          decline_levels(), directory_short("AAPL"), directory_long("AAPL"), indicator("AAPL"), collar(),
          mpid_quote(), end_of_snapshot(9), std::string("nothing")}) {
        EXPECT_EQ(heard.take(data), "");
    }
    EXPECT_EQ(heard.market.undecoded, 1u);
    EXPECT_EQ(heard.market.messages, 11u);
}

TEST(ListenMarket, Secid_IsThePositionInTheDirectory_AndARepeatedNameKeepsItsPlace) {
    Heard heard;
    for (const char* symbol : {"AAPL", "MSFT", "AAPL", "", "TSLA"}) {
        heard.take(directory_short(symbol));
        heard.take(directory_long(symbol));
        heard.take(indicator(symbol));
    }
    ASSERT_EQ(heard.market.instruments.size(), 5u);
    EXPECT_EQ(find_instrument(heard.market, "AAPL")->secid, 1u);
    EXPECT_EQ(find_instrument(heard.market, "")->secid, 4u);
    EXPECT_EQ(find_instrument(heard.market, "TSLA")->secid, 5u);
    EXPECT_EQ(find_instrument(heard.market, "aapl"), nullptr);
}

TEST(ListenMarket, ManyInstruments_AreAllFound) {
    Heard heard;
    for (int i = 0; i < 3000; ++i) {
        heard.take(directory_short("S" + std::to_string(i)));
    }
    for (int i = 0; i < 3000; ++i) {
        const Instrument* instrument = find_instrument(heard.market, "S" + std::to_string(i));
        ASSERT_NE(instrument, nullptr);
        EXPECT_EQ(instrument->secid, static_cast<unsigned>(i + 1));
    }
}

TEST(ListenMarket, WipedOutQuote_LeavesTheLevels) {
    Heard heard;
    heard.take(directory_short("AAPL"));
    heard.take(quote_short(quote_of('Q', 1000, 100, 1002, 100)));
    heard.take(header('C', 'P', 'Q').data);
    EXPECT_TRUE(find_quote(heard.market.instruments[0], 'Q')->present);
    QuoteHand gone = quote_of('Q', 0, 0, 0, 0);
    gone.sip_flag = 'E';
    const std::string line = heard.take(quote_short(gone));
    EXPECT_NE(line.find("\"bid\":[],\"ask\":[]"), std::string::npos) << line;
    EXPECT_FALSE(find_quote(heard.market.instruments[0], 'Q')->present);
}

TEST(ListenMarket, BestOddLotQuote_ComesStaysAndGoes) {
    Heard heard;
    QuoteHand quote = quote_of('Q', 1000, 100, 1005, 100);
    quote.best_odd_lot = '2';
    quote.odd_lot_list = '2';
    quote.odd_lot_count = 1;
    quote.appendages =
        Bytes{}.text("Q", 1).number(1001, 2).number(9, 2).text(" ", 1).number(0, 2).number(0, 2).data +
        Bytes{}.text("QB", 2).number(1001, 2).number(9, 2).data;
    heard.take(quote_short(quote));
    const Instrument& instrument = heard.market.instruments[0];
    EXPECT_TRUE(instrument.best_odd_lot.present);
    EXPECT_EQ(instrument.best_odd_lot.bid, 10'010'000);
    EXPECT_EQ(instrument.best_odd_lot.ask_center, ' ');
    EXPECT_EQ(instrument.quotes[0].odd_lots, (std::vector<OddLot>{{'Q', 'B', 10'010'000, 9, ""}}));
    heard.take(quote_short(quote_of('N', 1000, 100, 1005, 100)));
    EXPECT_TRUE(instrument.best_odd_lot.present);
    QuoteHand gone = quote_of('Q', 1000, 100, 1005, 100);
    gone.best_odd_lot = '1';
    heard.take(quote_short(gone));
    EXPECT_EQ(instrument.best_odd_lot, BestOddLot{});
    EXPECT_TRUE(find_quote(instrument, 'Q')->odd_lots.empty());
}

TEST(ListenMarket, TradesAndRevisions) {
    Heard heard;
    heard.take(trade_short('N', ' ', 1, 1000, 100, "@   ", '7'));
    heard.take(trade_short('N', ' ', 2, 1001, 100, "@   ", '5'));
    heard.take(trade_short('N', ' ', 3, 900, 50, "@  I", '0'));
    const Instrument& instrument = heard.market.instruments[0];
    EXPECT_EQ(instrument.sales, (SaleStatistics{10'010'000, 10'000'000, 10'010'000, 250'000'000}));
    EXPECT_EQ(instrument.share_volume, 250u);
    heard.take(cancel_error('N', 'C', 3, 9'000'000, 50));
    EXPECT_FALSE(instrument.trades[2].live);
    EXPECT_TRUE(instrument.trades[1].live);
    EXPECT_EQ(instrument.sales, (SaleStatistics{11, 12, 13, 14}));
    heard.take(correction('N', 2, 4, 10'010'000, 10'020'000, 100));
    EXPECT_FALSE(instrument.trades[1].live);
    ASSERT_EQ(instrument.trades.size(), 4u);
    EXPECT_EQ(instrument.trades[3].id, 4u);
    EXPECT_TRUE(instrument.trades[3].live);
    EXPECT_EQ(instrument.center_sales[0].sales, (SaleStatistics{21, 22, 23, 24}));
}

TEST(ListenMarket, KeptTrades_AreBounded) {
    Heard heard;
    for (std::uint64_t id = 1; id <= 3 * trades_kept_max; ++id) {
        heard.take(trade_short('N', ' ', id, 1000, 100, "@   "));
        ASSERT_LE(heard.market.instruments[0].trades.size(), trades_kept_max);
    }
    EXPECT_EQ(heard.market.instruments[0].trades.back().id, 3 * trades_kept_max);
}

TEST(ListenMarket, CentresOfAnyByte_StandInTheOrderOfTheirValues) {
    Heard heard;
    heard.take(directory_short("AAPL"));
    std::string centers;
    for (const char center : {'\xe9', 'Q', '\x80', 'A', '\xff', 'z'}) {
        heard.take(quote_short(quote_of(center, 1000, 100, 1002, 100)));
    }
    for (const CentreQuote& quote : heard.market.instruments[0].quotes) {
        centers += quote.center;
    }
    EXPECT_EQ(centers, "AQz\x80\xe9\xff");
}

TEST(ListenMarket, LongSymbol_IsElevenLetters) {
    Heard heard;
    heard.take(directory_short("ABCDEFGHIJKLMN"));
    EXPECT_NE(
        heard.take(price_band("ABCDEFGHIJKLMN", 'A', 1, 1)).find("\"secid\":1,\"symbol\":\"ABCDEFGHIJK\""),
        std::string::npos);
}

}  // namespace
}  // namespace tessel::listen
