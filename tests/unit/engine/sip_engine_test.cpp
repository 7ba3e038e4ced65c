#include "engine/sip_engine.h"

#include "support/scripted_draws.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::int_draw;
using testing::MarketOptions;
using testing::script_draws;
using testing::StderrCapture;
using testing::TestMarket;

std::string slot_letters(const Instrument& instrument) {
    std::string result;
    for (std::size_t slot = 0; slot < instrument.quote_slots; ++slot) {
        result += instrument.quotes[slot].market_center;
    }
    return result;
}

TEST(FindInstrument, OtherCase_IsUnknownAndTold) {
    TestMarket market;
    StderrCapture errors;
    EXPECT_EQ(find_instrument(market.engine, "aapl"), nullptr);
    EXPECT_EQ(find_instrument(market.engine, "AAP"), nullptr);
    EXPECT_EQ(find_instrument(market.engine, "AAPLX"), nullptr);
    EXPECT_EQ(find_instrument(market.engine, ""), nullptr);
    EXPECT_EQ(errors.take(),
              "bench: unknown symbol 'aapl'\nbench: unknown symbol 'AAP'\n"
              "bench: unknown symbol 'AAPLX'\nbench: unknown symbol ''\n");
}

TEST(FindInstrument, RepeatedAndEmptySymbols_TheFirstIsFound) {
    TestMarket market({.symbols = "A:1,,A:2,"});
    StderrCapture errors;
    EXPECT_EQ(find_instrument(market.engine, "A"), &market.at(0));
    EXPECT_EQ(find_instrument(market.engine, ""), &market.at(1));
    EXPECT_EQ(errors.take(), "");
}

TEST(AddInstruments, BadPrice_IsRefusedWithItsText) {
    EXPECT_THROW(TestMarket({.symbols = "A:,B:1"}), std::runtime_error);
}

TEST(AddInstruments, EverySlot_HasItsLetterInLetterOrderAndTheTextIsKept) {
    TestMarket market({.symbols = "A,B", .participants = "QzDNQ\xe9"});
    for (std::size_t at : {0u, 1u}) {
        EXPECT_EQ(slot_letters(market.at(at)), "DNQz\xe9");  // by byte value, unsigned
        EXPECT_FALSE(find_quote(market.at(at), 'Q')->quoted);
    }
    EXPECT_NE(market.at(0).quotes, market.at(1).quotes);
    EXPECT_EQ(market.engine.participants, "QzDNQ\xe9");
    EXPECT_EQ(market.engine.participant_slots, (std::vector<std::uint16_t>{2, 3, 0, 1, 2, 4}));
}

TEST(AddInstruments, CrossAndTrfCenters_HaveStatisticsWhoeverQuotes) {
    TestMarket market({.symbols = "A", .participants = "N"});
    EXPECT_GE(market.engine.trade_slot['Q'], 0);
    EXPECT_GE(market.engine.trade_slot['D'], 0);
    EXPECT_GE(market.engine.trade_slot['N'], 0);
    EXPECT_LT(market.engine.trade_slot['Z'], 0);
    EXPECT_EQ(market.at(0).trade_slots, 3u);
}

TEST(AddInstruments, NoParticipants_NoQuoteSlots) {
    TestMarket market({.symbols = "A", .participants = ""});
    EXPECT_EQ(market.at(0).quote_slots, 0u);
    EXPECT_TRUE(market.engine.participant_slots.empty());
}

TEST(DrawParticipant, RepeatedLetter_IsTwiceAsLikely) {
    TestMarket market({.symbols = "A", .participants = "QQN"});
    script_draws(market.rng, {int_draw(0, 2, 0), int_draw(0, 2, 1), int_draw(0, 2, 2)});
    std::string drawn;
    for (int at = 0; at < 3; ++at) {
        drawn += market.at(0).quotes[draw_participant(market.engine)].market_center;
    }
    EXPECT_EQ(drawn, "QQN");
    int q = 0;
    constexpr int draws = 30'000;
    for (int at = 0; at < draws; ++at) {
        q += market.at(0).quotes[draw_participant(market.engine)].market_center == 'Q' ? 1 : 0;
    }
    EXPECT_NEAR(q, 20'000, 500);  // six standard deviations
}

TEST(DrawParticipant, OneLetter_StillTakesADraw) {
    TestMarket market({.symbols = "A", .participants = "N"});
    script_draws(market.rng, {~std::uint64_t{0}, 7});
    EXPECT_EQ(draw_participant(market.engine), 0);
    EXPECT_EQ(testing::draws_left(market.rng), 1u);
}

}  // namespace
}  // namespace tessel
