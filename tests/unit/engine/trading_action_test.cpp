#include "engine/trading_action.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel {
namespace {

using testing::get_text;
using testing::get_u32;
using testing::get_u64;
using testing::TestMarket;

TEST(TradingAction, EveryField_AndTheTruthLine) {
    TestMarket market({.symbols = "IBM:100"});
    const std::uint64_t now = market.clock.simulated_wall_ns;
    send_trading_action(market.engine, market.at(0), 'H', "T1", 4'242);
    const testing::Bytes message = market.message(1);
    EXPECT_EQ(message.size(), 59u);
    EXPECT_EQ(get_text(message, 0, 5), "1AHQ ");
    EXPECT_EQ(get_u64(message, 5), now);
    EXPECT_EQ(get_u64(message, 13), 4'242u);
    EXPECT_EQ(get_u64(message, 21), 0u);
    EXPECT_EQ(get_text(message, 29, 11), "IBM        ");
    EXPECT_EQ(get_text(message, 40, 1), "H");
    EXPECT_EQ(get_u32(message, 41), 1u);
    EXPECT_EQ(get_u64(message, 45), 4'242u);
    EXPECT_EQ(get_text(message, 53, 6), "T1    ");
    EXPECT_EQ(market.truth_text(),
              "{\"seq\":1,\"secid\":1,\"symbol\":\"IBM\",\"bid\":[],\"ask\":[],"
              "\"nbbo\":[0.0000,0,0.0000,0],\"status\":\"H\",\"ah\":\"H\",\"reason\":\"T1\"}\n");
    EXPECT_EQ(market.at(0).status, 'H');
    EXPECT_EQ(market.at(0).halt_reason, "T1");
}

TEST(TradingAction, EveryAction_CountsForItsInstrument) {
    TestMarket market({.symbols = "A,B"});
    std::uint32_t expected = 0;
    for (const char action : std::string("HQTPQTHH")) {
        send_trading_action(market.engine, market.at(0), action, "R", 1);
        EXPECT_EQ(get_u32(market.message(market.last()), 41), ++expected);
        EXPECT_EQ(market.at(0).status, action);
    }
    send_trading_action(market.engine, market.at(1), 'H', "R", 1);
    EXPECT_EQ(get_u32(market.message(market.last()), 41), 1u);
}

TEST(TradingAction, LongReason_IsCutInTheMessageOnly) {
    TestMarket market({.symbols = "A"});
    send_trading_action(market.engine, market.at(0), 'H', "ABCDEFGH", 1);
    EXPECT_EQ(get_text(market.message(1), 53, 6), "ABCDEF");
    EXPECT_EQ(market.at(0).halt_reason, "ABCDEFGH");
    EXPECT_NE(market.truth_text().find("\"reason\":\"ABCDEFGH\"}"), std::string::npos);
}

TEST(TradingAction, InstrumentsOwnReason_IsRepeated) {
    TestMarket market({.symbols = "A"});
    send_trading_action(market.engine, market.at(0), 'Q', "LUDP", 1);
    send_trading_action(market.engine, market.at(0), 'T', market.at(0).halt_reason, 1);
    EXPECT_EQ(get_text(market.message(2), 53, 6), "LUDP  ");
    EXPECT_EQ(market.at(0).halt_reason, "LUDP");
}

TEST(TradingAction, AnyAction_MovesNoCounter) {
    TestMarket market({.symbols = "A"});
    send_trading_action(market.engine, market.at(0), 'H', "T1", 1);
    EXPECT_EQ(market.scenario.stats.halts, 0u);
    EXPECT_EQ(market.scenario.stats.quotes, 0u);
    EXPECT_TRUE(market.packets.empty());  // and nothing is flushed
}

}  // namespace
}  // namespace tessel
