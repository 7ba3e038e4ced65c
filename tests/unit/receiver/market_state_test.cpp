#include "receiver/market_state.h"

#include "unit/receiver/received_market.h"

#include <gtest/gtest.h>

namespace tessel::receiver {
namespace {

using namespace hand_made;

TEST(MarketState, Secid_IsThePositionInTheDirectory_AndARepeatedNameKeepsItsPlace) {
    ReceivedMarket received;
    for (const char* symbol : {"AAPL", "MSFT", "AAPL", "", "TSLA"}) {
        received.take(directory_short(symbol));
        received.take(directory_long(symbol));
        received.take(indicator(symbol));
    }
    ASSERT_EQ(received.market.instruments.size(), 5u);
    EXPECT_EQ(find_instrument(received.market, "AAPL")->secid, 1u);
    EXPECT_EQ(find_instrument(received.market, "")->secid, 4u);
    EXPECT_EQ(find_instrument(received.market, "TSLA")->secid, 5u);
    EXPECT_EQ(find_instrument(received.market, "aapl"), nullptr);
}

TEST(MarketState, ManyInstruments_AreAllFound) {
    ReceivedMarket received;
    for (int i = 0; i < 3000; ++i) {
        received.take(directory_short("S" + std::to_string(i)));
    }
    for (int i = 0; i < 3000; ++i) {
        const Instrument* instrument = find_instrument(received.market, "S" + std::to_string(i));
        ASSERT_NE(instrument, nullptr);
        EXPECT_EQ(instrument->secid, static_cast<unsigned>(i + 1));
    }
}

TEST(MarketState, WipedOutQuote_LeavesTheLevels) {
    ReceivedMarket received;
    received.take(directory_short("AAPL"));
    received.take(quote_short(quote_of('Q', 1000, 100, 1002, 100)));
    received.take(header('C', 'P', 'Q').data);
    EXPECT_TRUE(find_quote(received.market.instruments[0], 'Q')->present);
    QuoteHand gone = quote_of('Q', 0, 0, 0, 0);
    gone.sip_flag = 'E';
    const std::string line = received.take(quote_short(gone));
    EXPECT_NE(line.find("\"bid\":[],\"ask\":[]"), std::string::npos) << line;
    EXPECT_FALSE(find_quote(received.market.instruments[0], 'Q')->present);
}

TEST(MarketState, BestOddLotQuote_ComesStaysAndGoes) {
    ReceivedMarket received;
    QuoteHand quote = quote_of('Q', 1000, 100, 1005, 100);
    quote.best_odd_lot = '2';
    quote.odd_lot_list = '2';
    quote.odd_lot_count = 1;
    quote.appendages =
        Bytes{}.text("Q", 1).number(1001, 2).number(9, 2).text(" ", 1).number(0, 2).number(0, 2).data +
        Bytes{}.text("QB", 2).number(1001, 2).number(9, 2).data;
    received.take(quote_short(quote));
    const Instrument& instrument = received.market.instruments[0];
    EXPECT_TRUE(instrument.best_odd_lot.present);
    EXPECT_EQ(instrument.best_odd_lot.bid, 10'010'000);
    EXPECT_EQ(instrument.best_odd_lot.ask_center, ' ');
    EXPECT_EQ(instrument.quotes[0].odd_lots, (std::vector<OddLot>{{'Q', 'B', 10'010'000, 9, ""}}));
    received.take(quote_short(quote_of('N', 1000, 100, 1005, 100)));
    EXPECT_TRUE(instrument.best_odd_lot.present);
    QuoteHand gone = quote_of('Q', 1000, 100, 1005, 100);
    gone.best_odd_lot = '1';
    received.take(quote_short(gone));
    EXPECT_EQ(instrument.best_odd_lot, BestOddLot{});
    EXPECT_TRUE(find_quote(instrument, 'Q')->odd_lots.empty());
}

TEST(MarketState, TradesAndRevisions_KeepLastVolumeHighAndLow) {
    ReceivedMarket received;
    received.take(trade_short('N', ' ', 1, 1000, 100, "@   ", '7'));
    received.take(trade_short('N', ' ', 2, 1001, 100, "@   ", '5'));
    received.take(trade_short('N', ' ', 3, 900, 50, "@  I", '0'));
    const Instrument& instrument = received.market.instruments[0];
    EXPECT_EQ(instrument.sales, (SaleStatistics{10'010'000, 10'000'000, 10'010'000, 250'000'000}));
    EXPECT_EQ(instrument.share_volume, 250u);
    received.take(cancel_error('N', 'C', 3, 9'000'000, 50));
    EXPECT_FALSE(instrument.trades[2].live);
    EXPECT_TRUE(instrument.trades[1].live);
    EXPECT_EQ(instrument.sales, (SaleStatistics{11, 12, 13, 14}));
    received.take(correction('N', 2, 4, 10'010'000, 10'020'000, 100));
    EXPECT_FALSE(instrument.trades[1].live);
    ASSERT_EQ(instrument.trades.size(), 4u);
    EXPECT_EQ(instrument.trades[3].id, 4u);
    EXPECT_TRUE(instrument.trades[3].live);
    EXPECT_EQ(instrument.center_sales[0].sales, (SaleStatistics{21, 22, 23, 24}));
}

TEST(MarketState, RevisedLastSale_ComesWithItsCenter) {
    ReceivedMarket received;
    received.take(trade_short('N', ' ', 1, 1000, 100, "@   ", '7'));
    received.take(trade_short('P', ' ', 1, 1001, 100, "@   ", '7'));
    EXPECT_EQ(received.market.instruments[0].last_center, 'P');
    received.take(cancel_error('P', 'C', 1, 10'010'000, 100));
    EXPECT_EQ(received.market.instruments[0].last_center, 'Q');
}

TEST(MarketState, SaleConditions_DecideAboutLastAndVolume) {
    const std::string_view last_letters = "@ABDFKLOSXY1569";
    const std::string_view volume_letters = "@ABCDFGHIKLOPRSTUVWXYZ14567";
    for (int code = '!'; code <= '~'; ++code) {
        const char letter = static_cast<char>(code);
        ReceivedMarket received;
        received.take(trade_short('N', ' ', 1, 1000, 100, std::string("@  ") + letter, '0'));
        const Instrument& instrument = received.market.instruments[0];
        const bool last = last_letters.find(letter) != std::string_view::npos;
        const bool volume = volume_letters.find(letter) != std::string_view::npos;
        EXPECT_EQ(instrument.sales.last, last ? 10'000'000 : 0) << letter;
        EXPECT_EQ(instrument.last_center, last ? 'N' : ' ') << letter;
        EXPECT_EQ(instrument.sales.volume, volume ? 100'000'000u : 0u) << letter;
    }
}

TEST(MarketState, OneSidedQuote_IsPresent) {
    ReceivedMarket received;
    received.take(quote_short(quote_of('Q', 1000, 100, 0, 0)));
    received.take(quote_short(quote_of('N', 0, 0, 1002, 100)));
    EXPECT_TRUE(find_quote(received.market.instruments[0], 'Q')->present);
    EXPECT_TRUE(find_quote(received.market.instruments[0], 'N')->present);
}

TEST(MarketState, KeptTrades_AreBounded) {
    ReceivedMarket received;
    for (std::uint64_t id = 1; id <= 3 * trades_kept_max; ++id) {
        received.take(trade_short('N', ' ', id, 1000, 100, "@   "));
        ASSERT_LE(received.market.instruments[0].trades.size(), trades_kept_max);
    }
    EXPECT_EQ(received.market.instruments[0].trades.back().id, 3 * trades_kept_max);
}

TEST(MarketState, CentersOfAnyByte_StandInTheOrderOfTheirValues) {
    ReceivedMarket received;
    received.take(directory_short("AAPL"));
    std::string centers;
    for (const char center : {'\xe9', 'Q', '\x80', 'A', '\xff', 'z'}) {
        received.take(quote_short(quote_of(center, 1000, 100, 1002, 100)));
    }
    for (const CenterQuote& quote : received.market.instruments[0].quotes) {
        centers += quote.center;
    }
    EXPECT_EQ(centers, "AQz\x80\xe9\xff");
}

TEST(MarketState, LongSymbol_IsElevenLetters) {
    ReceivedMarket received;
    received.take(directory_short("ABCDEFGHIJKLMN"));
    EXPECT_NE(
        received.take(price_band("ABCDEFGHIJKLMN", 'A', 1, 1)).find("\"secid\":1,\"symbol\":\"ABCDEFGHIJK\""),
        std::string::npos);
}

}  // namespace
}  // namespace tessel::receiver
