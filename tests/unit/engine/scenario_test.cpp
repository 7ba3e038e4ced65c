#include "engine/scenario.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

namespace tessel {
namespace {

constexpr const char* default_armed_tail =
    "armed (halt after 0 s for 8 s, LULD pause after 0 s for 8 s, band every 0 s, TRF print every 0 ticks, "
    "cancel "
    "every 0 trades, correct every 0 trades, MWCB level 0 after 10 s, odd lot every 9 quotes, as-of every 0 "
    "trades)\n";

TEST(ScenarioText, EmptyText_LeavesTheDefaults) {
    const Scenario scenario = parse_scenario("");
    EXPECT_EQ(scenario.name, "");
    EXPECT_EQ(scenario.halt_after, 0u);
    EXPECT_EQ(scenario.halt_secs, 8u);
    EXPECT_EQ(scenario.pause_after, 0u);
    EXPECT_EQ(scenario.pause_secs, 8u);
    EXPECT_EQ(scenario.band_every, 0u);
    EXPECT_EQ(scenario.trf_every, 0u);
    EXPECT_EQ(scenario.cancel_every, 0u);
    EXPECT_EQ(scenario.correct_every, 0u);
    EXPECT_EQ(scenario.mwcb_level, 0u);
    EXPECT_EQ(scenario.mwcb_after, 10u);
    EXPECT_EQ(scenario.odd_lot_every, 9u);
    EXPECT_EQ(scenario.asof_every, 0u);
    EXPECT_EQ(scenario.stats.quotes, 0u);
}

TEST(ScenarioText, EveryKey_ReachesItsField) {
    const Scenario scenario = parse_scenario(
        "name=all of it,halt_after=1,halt_secs=2,pause_after=3,pause_secs=4,band_every=5,trf_every=6,"
        "cancel_every=7,correct_every=8,mwcb_level=9,mwcb_after=10,odd_lot_every=11,asof_every=12");
    EXPECT_EQ(scenario.name, "all of it");
    EXPECT_EQ(scenario.halt_after, 1u);
    EXPECT_EQ(scenario.halt_secs, 2u);
    EXPECT_EQ(scenario.pause_after, 3u);
    EXPECT_EQ(scenario.pause_secs, 4u);
    EXPECT_EQ(scenario.band_every, 5u);
    EXPECT_EQ(scenario.trf_every, 6u);
    EXPECT_EQ(scenario.cancel_every, 7u);
    EXPECT_EQ(scenario.correct_every, 8u);
    EXPECT_EQ(scenario.mwcb_level, 9u);
    EXPECT_EQ(scenario.mwcb_after, 10u);
    EXPECT_EQ(scenario.odd_lot_every, 11u);
    EXPECT_EQ(scenario.asof_every, 12u);
    EXPECT_EQ(armed_line(scenario),
              "bench: scenario 'all of it' armed (halt after 1 s for 2 s, LULD pause after 3 s for 4 s, band "
              "every 5 "
              "s, TRF print every 6 ticks, cancel every 7 trades, correct every 8 trades, MWCB level 9 after "
              "10 s, odd "
              "lot every 11 quotes, as-of every 12 trades)\n");
}

TEST(ScenarioText, BadNumber_IsZeroAndNotTheDefault) {
    EXPECT_EQ(parse_scenario("halt_secs=x").halt_secs, 0u);
    EXPECT_EQ(parse_scenario("odd_lot_every=").odd_lot_every, 0u);
    EXPECT_EQ(parse_scenario("mwcb_after=18446744073709551616").mwcb_after, 0u);
}

TEST(ScenarioText, KeysAndValues_AreNotTrimmed) {
    EXPECT_EQ(parse_scenario(" halt_after=3").halt_after, 0u) << "a blank makes it another key";
    EXPECT_EQ(parse_scenario("halt_after =3").halt_after, 0u);
    EXPECT_EQ(parse_scenario("halt_after= 3").halt_after, 3u) << "a number skips leading blanks";
    EXPECT_EQ(parse_scenario("HALT_AFTER=3").halt_after, 0u);
    EXPECT_EQ(parse_scenario("name= x ").name, " x ");
}

TEST(ScenarioText, Name_MayHoldEqualsSignsAndBlanks) {
    EXPECT_EQ(parse_scenario("name=a=b c").name, "a=b c");
}

TEST(ScenarioText, KeyGivenTwice_KeepsTheLastValue) {
    EXPECT_EQ(parse_scenario("halt_after=3,halt_after=5").halt_after, 5u);
}

TEST(ScenarioText, UnknownKeysAndOddEntries_AreIgnored) {
    const Scenario scenario = parse_scenario(",,foo,=,=5,what=1,halt_after=2,");
    EXPECT_EQ(scenario.halt_after, 2u);
    EXPECT_EQ(scenario.name, "");
    EXPECT_EQ(scenario.halt_secs, 8u);
}

TEST(ReadScenario, UnsetOrEmptyVariable_PrintsNothing) {
    for (const char* value : {static_cast<const char*>(nullptr), ""}) {
        testing::StderrCapture capture;
        const Scenario scenario = arm_scenario(value);
        EXPECT_EQ(capture.take(), "");
        EXPECT_EQ(scenario.odd_lot_every, 9u);
    }
}

TEST(ReadScenario, JustFoo_IsArmedWithDefaultsAndAnEmptyName) {
    testing::StderrCapture capture;
    arm_scenario("foo");
    EXPECT_EQ(capture.take(), std::string("bench: scenario '' ") + default_armed_tail);
}

TEST(ReadScenario, PercentSignsInTheName_ArePrintedAsTheyAre) {
    testing::StderrCapture capture;
    arm_scenario("name=100%s%n");
    EXPECT_EQ(capture.take(), std::string("bench: scenario '100%s%n' ") + default_armed_tail);
}

}  // namespace
}  // namespace tessel
