#include "receiver/truth_line.h"

#include "unit/receiver/received_market.h"

#include <gtest/gtest.h>

namespace tessel::receiver {
namespace {

using namespace hand_made;

TEST(TruthLine, Quote_AggregatesLevelsOfAllConditions_BestFirst) {
    ReceivedMarket received;
    received.take(directory_short("AAPL"));
    received.take(quote_short(quote_of('N', 19000, 500, 0, 0)));
    QuoteHand halted = quote_of('P', 19001, 100, 19005, 400);
    halted.condition = 'N';
    received.take(quote_short(halted));
    QuoteHand last = quote_of('Q', 19001, 200, 19003, 200);
    last.nbbo = '2';
    last.appendages = nbbo_short('Q', 19001, 200, 'Q', 19003, 200);
    EXPECT_EQ(
        received.take(quote_short(last)),
        "{\"seq\":4,\"secid\":1,\"symbol\":\"AAPL\",\"bid\":[[190.0100,300],[190.0000,500]],"
        "\"ask\":[[190.0300,200],[190.0500,400]],\"nbbo\":[190.0100,200,190.0300,200],\"status\":\"T\"}\n");
}

TEST(TruthLine, TwelveLevels_TheBestTenAreShown) {
    ReceivedMarket received;
    received.take(directory_short("AAPL"));
    std::string line;
    for (int i = 0; i < 12; ++i) {
        line = received.take(quote_short(quote_of(static_cast<char>('A' + i), 100 + i, 100, 200 + i, 100)));
    }
    const std::string bids = line.substr(line.find("\"bid\""), line.find(",\"ask\"") - line.find("\"bid\""));
    EXPECT_EQ(std::count(bids.begin(), bids.end(), '.'), 10);
    EXPECT_NE(bids.find("[[1.1100,100],[1.1000,100]"), std::string::npos) << bids;
    EXPECT_EQ(bids.find("1.0100"), std::string::npos) << bids;
}

TEST(TruthLine, NothingKnown_ShowsEmptySides_AndNoSecid) {
    ReceivedMarket received;
    EXPECT_EQ(
        received.take(trading_action("ZZZ", 'H', 1, "T1")),
        "{\"seq\":1,\"symbol\":\"ZZZ\",\"bid\":[],\"ask\":[],\"nbbo\":[0.0000,0,0.0000,0],\"status\":\"H\","
        "\"ah\":\"H\",\"reason\":\"T1\"}\n");
}

TEST(TruthLine, Nbbo_FollowsItsIndicators) {
    ReceivedMarket received;
    received.take(directory_short("AAPL"));
    QuoteHand whole = quote_of('Q', 1000, 300, 1002, 200);
    whole.nbbo = '4';
    received.take(quote_short(whole));
    const Instrument& instrument = received.market.instruments[0];
    EXPECT_EQ(instrument.nbbo, (Nbbo{10'000'000, 10'020'000, 300, 200, 'Q', 'Q'}));
    received.take(quote_short(quote_of('N', 990, 100, 1010, 100)));  // "0": as it was
    EXPECT_EQ(instrument.nbbo, (Nbbo{10'000'000, 10'020'000, 300, 200, 'Q', 'Q'}));
    QuoteHand reported = quote_of('P', 70'000, 100, 70'001, 100);
    reported.nbbo = '3';
    reported.appendages = nbbo_long('P', 700'000'000, 100, 'N', 10'100'000, 70'000);
    received.take(quote_long(reported));
    EXPECT_EQ(instrument.nbbo, (Nbbo{700'000'000, 10'100'000, 100, 70'000, 'P', 'N'}));
    QuoteHand none = quote_of('P', 0, 0, 0, 0);
    none.nbbo = '1';
    received.take(quote_short(none));
    EXPECT_EQ(instrument.nbbo, Nbbo{});
}

TEST(TruthLine, Band_IsShownOnlyWhileInForce) {
    ReceivedMarket received;
    received.take(directory_short("AAPL"));
    const std::string shown = ",\"band\":[180.5000,199.5000],\"status\":\"T\",\"ap\":\"";
    for (const char indicator : std::string("ABCEG")) {
        const std::string line = received.take(price_band("AAPL", indicator, 180'500'000, 199'500'000));
        EXPECT_NE(line.find(shown + indicator + "\"}\n"), std::string::npos) << line;
    }
    EXPECT_EQ(received.take(price_band("AAPL", 'D', 180'500'000, 199'500'000)).find("\"band\""),
              std::string::npos);
    EXPECT_EQ(received.take(price_band("AAPL", 'A', 0, 199'500'000)).find("\"band\""), std::string::npos);
    EXPECT_EQ(received.take(price_band("AAPL", 'A', 180'500'000, 0)).find("\"band\""), std::string::npos);
}

TEST(TruthLine, TradeKind_ComesFromCenterAndConditions) {
    ReceivedMarket received;
    received.take(directory_short("AAPL"));
    EXPECT_EQ(received.take(trade_short('N', ' ', 5, 19001, 37, "@  I")),
              "{\"seq\":2,\"secid\":1,\"symbol\":\"AAPL\",\"trade\":[190.0100,37,\"N\",\"@  "
              "I\"],\"kind\":0,\"id\":5}\n");
    EXPECT_NE(received.take(trade_short('D', 'N', 1, 19001, 100, "@   ")).find("\"kind\":1,"),
              std::string::npos);
    EXPECT_NE(received.take(trade_short('N', ' ', 1, 19001, 100, "@F  ")).find("\"kind\":0,"),
              std::string::npos);
    for (const char* cross : {"@O  ", "@5  ", "@6  ", "@  M"}) {
        EXPECT_NE(received.take(trade_short('Q', ' ', 1, 19001, 0, cross)).find("\"kind\":2,"),
                  std::string::npos);
    }
}

TEST(TruthLine, CancelCorrectionAsOfAndBreaker_AreWrittenAsInTheTruth) {
    ReceivedMarket received;
    received.take(directory_short("AAPL"));
    EXPECT_EQ(received.take(cancel_error('N', 'E', 5, 190'010'000, 200)),
              "{\"seq\":2,\"secid\":1,\"symbol\":\"AAPL\",\"cancel_error\":[5,190.0100,200,\"N\",\"E\"]}\n");
    EXPECT_EQ(received.take(correction('N', 5, 6, 190'010'000, 190'020'000, 300)),
              "{\"seq\":3,\"secid\":1,\"symbol\":\"AAPL\",\"correction\":[5,6,190.0200,300,\"N\"]}\n");
    EXPECT_EQ(received.take(as_of(189'970'000)),
              "{\"seq\":4,\"secid\":1,\"symbol\":\"AAPL\",\"asof\":[189.97,300,\"D\",\"@   \"]}\n");
    EXPECT_NE(received.take(as_of(1'234'567'800)).find("[1234.57,"), std::string::npos);
    EXPECT_NE(received.take(as_of(-20'000)).find("[-0.02,"), std::string::npos);
    EXPECT_EQ(received.take(mwcb_status('2')), "{\"seq\":7,\"mwcb\":2}\n");
}

TEST(TruthLine, NegativeAndFinePrices_AreWrittenAsInTheTruth) {
    ReceivedMarket received;
    received.take(directory_short("AAPL"));
    EXPECT_NE(received.take(trade_long('Q', "AAPL", 1, -10'000, 1, "@   ")).find("[-0.0100,1,"),
              std::string::npos);
    EXPECT_NE(received.take(trade_long('Q', "AAPL", 1, 1'234'567, 1, "@   ")).find("[1.2346,1,"),
              std::string::npos);
    EXPECT_NE(received.take(trade_long('Q', "AAPL", 1, INT64_MIN, 1, "@   ")).find("-9223372036854.7"),
              std::string::npos);
}

TEST(TruthLine, MessagesWithoutALine_WriteNothing) {
    ReceivedMarket received;
    for (const std::string& data :
         {header('C', 'I', 'E').data, header('C', 'O', 'N').data, header('C', 'P', 'Q').data,
          decline_levels(), directory_short("AAPL"), directory_long("AAPL"), indicator("AAPL"), collar(),
          mpid_quote(), end_of_snapshot(9), std::string("nothing")}) {
        EXPECT_EQ(received.take(data), "");
    }
    EXPECT_EQ(received.market.undecoded, 1u);
    EXPECT_EQ(received.market.messages, 11u);
}

}  // namespace
}  // namespace tessel::receiver
