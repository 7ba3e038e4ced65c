#include "engine/circuit_breaker.h"

#include "engine/halts.h"
#include "engine/luld.h"
#include "support/message_views.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::briefs;
using testing::get_text;
using testing::get_u64;
using testing::StderrCapture;
using testing::TestMarket;

using List = std::vector<std::string>;

std::string statuses(const TestMarket& market) {
    std::string result;
    for (const Instrument& instrument : market.engine.instruments) {
        result += instrument.status;
    }
    return result;
}

TEST(Breaker, Messages_AreTheStatusThenAHaltAnInstrumentInListOrder) {
    StderrCapture errors;
    TestMarket market({.symbols = "B:100,A:200", .participants = "QN"});
    market.start_of_day();
    const std::uint64_t mark = market.last();
    const std::uint64_t now = market.clock.simulated_wall_ns;
    market.packets.clear();
    errors.take();
    breach_mwcb(market.engine, 1);
    EXPECT_EQ(briefs(market, mark + 1, market.last()),
              (List{"breaker 1", "action H MWC1 1", "quote Q L", "quote N L", "band D", "action H MWC1 1",
                    "quote Q L", "quote N L", "band D"}));
    const testing::Bytes message = market.message(mark + 1);
    EXPECT_EQ(message.size(), 30u);
    EXPECT_EQ(get_text(message, 0, 5), "1ADE ");
    EXPECT_EQ(get_text(market.message(mark + 2), 29, 2), "B ");
    EXPECT_EQ(get_text(market.message(mark + 6), 29, 2), "A ");
    EXPECT_EQ(errors.take(), "bench: MWCB level 1 breached at seq " + std::to_string(mark + 1) + "\n" +
                                 "bench: B halted (MWC1) at seq " + std::to_string(mark + 5) +
                                 ", resuming in 5 s\n" + "bench: A halted (MWC1) at seq " +
                                 std::to_string(mark + 9) + ", resuming in 5 s\n");
    // Two readings for itself, then one for each halt.
    EXPECT_EQ(get_u64(message, 5) + get_u64(message, 13), 2 * now + 1);
    EXPECT_EQ(get_u64(market.message(mark + 2), 13), now + 2);
    EXPECT_EQ(get_u64(market.message(mark + 6), 13), now + 7);
    EXPECT_EQ(market.scenario.stats.mwcb, 1u);
    EXPECT_EQ(market.scenario.stats.halts, 2u);
    EXPECT_EQ(market.packets.size(), 2u);  // each halt flushes; the status goes out with the first
    EXPECT_EQ(market.publisher.packet_count, 0);
}

TEST(Breaker, EveryLevel_HasItsDigitReasonLengthAndTruthLine) {
    struct Row {
        std::uint32_t level;
        const char* digit;
        const char* reason;
        std::uint64_t resume_ms;
    };
    for (const Row& row : {Row{0, "0", "MWC3", 1'005'000},
                           {1, "1", "MWC1", 1'005'000},
                           {2, "2", "MWC2", 1'005'000},
                           {3, "3", "MWC3", 0},
                           {4, "3", "MWC3", 0},
                           {4'294'967'295u, "3", "MWC3", 0}}) {
        StderrCapture errors;
        TestMarket market({.symbols = "A:100"});
        breach_mwcb(market.engine, row.level);
        EXPECT_EQ(get_text(market.message(1), 29, 1), row.digit) << row.level;
        EXPECT_EQ(market.at(0).halt_reason, row.reason) << row.level;
        EXPECT_EQ(market.at(0).quote_resume_ms, row.resume_ms) << row.level;
        EXPECT_EQ(market.truth_lines().front(), "{\"seq\":1,\"mwcb\":" + std::to_string(row.level) + "}");
        EXPECT_EQ(
            errors.take().find("bench: MWCB level " + std::to_string(row.level) + " breached at seq 1\n"),
            0u);
    }
}

TEST(Breaker, LevelsOneAndTwo_QuoteAfterFiveSecondsAndTradeTwoLater) {
    for (const std::uint32_t level : {1u, 2u}) {
        StderrCapture errors;
        TestMarket market({.symbols = "A:100,B:100,C:100"});
        market.start_of_day();
        breach_mwcb(market.engine, level);
        List changes;
        std::string before = statuses(market);
        EXPECT_EQ(before, "HHH");
        const std::uint64_t start = market.clock.simulated_steady_ms;
        for (int at = 0; at < 600; ++at) {
            market.run_ticks(1);
            if (statuses(market) != before) {
                before = statuses(market);
                changes.push_back(std::to_string(market.clock.simulated_steady_ms - start) + " " + before);
            }
        }
        EXPECT_EQ(changes, (List{"5000 QQQ", "7000 TTT"}));
        EXPECT_EQ(market.at(2).halt_reason, "MWCQ");
        EXPECT_EQ(market.scenario.stats.cross_prints, 6u);  // three opening, three reopening
    }
}

TEST(Breaker, LevelThree_StaysUntilItIsResumedByHand) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100,B:100"});
    market.start_of_day();
    breach_mwcb(market.engine, 3);
    market.run_ticks(600);
    EXPECT_EQ(statuses(market), "HH");
    resume_quotation(market.engine, market.at(1), 5);
    market.run_ticks(30);
    EXPECT_EQ(statuses(market), "HT");
    EXPECT_EQ(market.at(0).halt_reason, "MWC3");
    EXPECT_EQ(market.at(1).halt_reason, "MWCQ");
}

TEST(Breaker, WhileSomeAreHaltedOneIsPausedAndOneQuotesOnly_HaltsTheOthers) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100,B:100,C:100,D:100,E:100", .participants = "Q"});
    market.start_of_day();
    halt_instrument(market.engine, market.at(0), "T1", 0);
    luld_pause(market.engine, market.at(1), 3);
    halt_instrument(market.engine, market.at(2), "T1", 20);
    halt_instrument(market.engine, market.at(3), "T1", 0);
    resume_quotation(market.engine, market.at(3), 5);
    EXPECT_EQ(statuses(market), "HPHQT");
    const std::uint64_t mark = market.last();
    breach_mwcb(market.engine, 2);
    EXPECT_EQ(briefs(market, mark + 1, market.last()),
              (List{"breaker 2", "action H MWC2 3", "quote Q L", "band D", "action H MWC2 1", "quote Q L",
                    "band D"}));
    EXPECT_EQ(statuses(market), "HPHHH");
    EXPECT_EQ(market.at(0).halt_reason, "T1");
    EXPECT_EQ(market.at(1).halt_reason, "LUDP");
    EXPECT_EQ(market.at(3).trade_resume_ms, 0u);
    market.run_ticks(49);  // the pause has ended on its own, the breaker has not
    EXPECT_EQ(statuses(market), "HQHHH");
    market.run_ticks(25);
    EXPECT_EQ(statuses(market), "HTHTT");
    market.run_ticks(150);
    EXPECT_EQ(statuses(market), "HTTTT");
}

TEST(Breaker, SecondBreachWhileAllAreHalted_IsToldAndHaltsNothing) {
    StderrCapture errors;
    TestMarket market({.symbols = "A:100,B:100"});
    market.start_of_day();
    breach_mwcb(market.engine, 2);
    const std::uint64_t mark = market.last();
    market.packets.clear();
    breach_mwcb(market.engine, 3);
    EXPECT_EQ(briefs(market, mark + 1, market.last()), (List{"breaker 3"}));
    EXPECT_EQ(market.truth_lines().back(), "{\"seq\":" + std::to_string(mark + 1) + ",\"mwcb\":3}");
    EXPECT_EQ(market.scenario.stats.mwcb, 2u);
    EXPECT_EQ(market.scenario.stats.halts, 2u);
    EXPECT_EQ(market.packets.size(), 1u);  // flushed without a halt to do it
    EXPECT_EQ(market.at(0).halt_reason, "MWC2");
}

TEST(Breaker, NoInstruments_IsToldAndFlushed) {
    StderrCapture errors;
    TestMarket market({.symbols = ""});
    breach_mwcb(market.engine, 1);
    EXPECT_EQ(market.last(), 1u);
    EXPECT_EQ(market.packets.size(), 1u);
}

}  // namespace
}  // namespace tessel
