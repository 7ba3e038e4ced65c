#include "app/scenario_events.h"
#include "engine/tick.h"
#include "support/message_views.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::brief;
using testing::get_text;
using testing::letters;
using testing::MarketOptions;
using testing::StderrCapture;
using testing::TestMarket;

using List = std::vector<std::string>;

// Sixty seconds of a scripted run, a tick each 100 ms; every trading action as "time symbol action reason
// number".
List run_script(TestMarket& market) {
    const std::uint64_t start = market.clock.simulated_steady_ms;
    ScenarioMarks marks;
    List actions;
    std::uint64_t seen = market.last();
    for (int at = 0; at < 600; ++at) {
        market.advance_ms(100);
        fire_scenario_events(market.engine, marks, start, market.clock.simulated_steady_ms);
        run_tick(market.engine, market.clock.simulated_steady_ms);
        for (; seen < market.last(); ++seen) {
            const testing::Bytes message = market.message(seen + 1);
            const std::string kind = letters(message).substr(0, 2);
            if (kind == "AH" || kind == "AD") {
                actions.push_back(std::to_string(market.clock.simulated_steady_ms - start) + " " +
                                  (kind == "AH" ? get_text(message, 29, 1) + " " : "") + brief(message));
            }
        }
    }
    return actions;
}

TEST(ScriptedRun, HaltPauseAndBreaker_EveryActionAtItsTime) {
    StderrCapture errors;
    TestMarket market(
        {.symbols = "A:100,B:100,C:100",
         .scenario = "halt_after=5,halt_secs=8,pause_after=10,pause_secs=22,mwcb_level=1,mwcb_after=30"});
    market.start_of_day();
    EXPECT_EQ(run_script(market),
              (List{"5000 A action H T1 1", "10000 B action P LUDP 1", "13000 A action Q T3 2",
                    "15000 A action T T3 3", "30000 breaker 1", "30000 A action H MWC1 4",
                    "30000 C action H MWC1 1", "32000 B action Q LUDP 2", "34000 B action T LUDP 3",
                    "35000 A action Q MWCQ 5", "35000 C action Q MWCQ 2", "37000 A action T MWCQ 6",
                    "37000 C action T MWCQ 3"}));
    const FeedStats& stats = market.scenario.stats;
    EXPECT_EQ(stats.halts, 3u);
    EXPECT_EQ(stats.pauses, 1u);
    EXPECT_EQ(stats.mwcb, 1u);
    EXPECT_EQ(stats.collars, 1u);
    EXPECT_EQ(stats.quote_resumes, 4u);
    EXPECT_EQ(stats.trade_resumes, 4u);
    EXPECT_EQ(stats.cross_prints, 7u);  // three opening, four reopening
}

TEST(ScriptedRun, EndlessHaltAndLevelThree_NothingResumes) {
    StderrCapture errors;
    TestMarket market(
        {.symbols = "A:100,B:100", .scenario = "halt_after=5,halt_secs=0,mwcb_level=3,mwcb_after=20"});
    market.start_of_day();
    EXPECT_EQ(run_script(market),
              (List{"5000 A action H T1 1", "20000 breaker 3", "20000 B action H MWC3 1"}));
}

TEST(ScriptedRun, HaltAndPauseOfTheOnlyInstrument_TheLaterOneDecides) {
    StderrCapture errors;
    TestMarket market(
        {.symbols = "A:100", .scenario = "halt_after=5,halt_secs=20,pause_after=7,pause_secs=3"});
    market.start_of_day();
    EXPECT_EQ(run_script(market), (List{"5000 A action H T1 1", "7000 A action P LUDP 2",
                                        "10000 A action Q LUDP 3", "12000 A action T LUDP 4"}));
}

TEST(SameSeed, TwoRuns_SendTheSameBytes_AndAnotherSeedDoesNot) {
    const MarketOptions options{.scenario =
                                    "trf_every=3,cancel_every=4,correct_every=5,asof_every=6,band_every=1"};
    TestMarket one(options);
    TestMarket two(options);
    MarketOptions other = options;
    other.seed = 8;
    TestMarket three(other);
    for (TestMarket* market : {&one, &two, &three}) {
        market->start_of_day();
        market->run_ticks(100);
    }
    EXPECT_EQ(one.packets, two.packets);
    EXPECT_EQ(one.truth_text(), two.truth_text());
    EXPECT_NE(one.packets, three.packets);
}

TEST(SameSeed, ClockThatRunsOtherwise_ChangesTimeStampsOnly) {
    TestMarket one({.scenario = "cancel_every=4"});
    TestMarket two({.scenario = "cancel_every=4", .wall_step_ns = 0});
    one.start_of_day();
    two.start_of_day();
    one.run_ticks(100, 100);
    two.run_ticks(100, 37);
    EXPECT_EQ(one.truth_text(), two.truth_text());
    EXPECT_EQ(one.last(), two.last());
}

}  // namespace
}  // namespace tessel
